// SPDX-License-Identifier: Apache-2.0
// Commands about files on the device: cat, ls, tree, df, stat, rm, mv.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <runel/records.h>
#include "commands/command.h"

#include "base/file_mode.h"
#include "client/core/paths.h"
#include "commands/lists.h"

#include "output/mode_text.h"

namespace runelctl {
namespace {

std::tm localTime(const runel::Timestamp& moment) {
  const std::time_t seconds = moment.seconds;
  std::tm parts{};
  (void)localtime_r(&seconds, &parts);  // a time that does not fit is shown as 1900
  return parts;
}

std::string minuteText(const runel::Timestamp& moment) {
  const std::tm parts = localTime(moment);
  char text[64];
  return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &parts));
}

std::string secondText(const runel::Timestamp& moment) {
  const std::tm parts = localTime(moment);
  char text[64];
  return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %z", &parts));
}

std::string longLine(const runel::Stat& st) {
  char text[128];
  std::snprintf(text, sizeof text, "%s %3llu %5llu %5llu %10llu ",
                modeText(zell::typeLetter(st.mode), st.mode).c_str(),
                static_cast<unsigned long long>(st.nlink), static_cast<unsigned long long>(st.uid),
                static_cast<unsigned long long>(st.gid), static_cast<unsigned long long>(st.size));
  return text + minuteText(st.mtime) + " ";
}

Json statJson(const runel::Stat& st) {
  char mode[16];
  std::snprintf(mode, sizeof mode, "%07o", st.mode);
  Json object = Json::object();
  object["type"] = std::string(1, zell::typeLetter(st.mode));
  object["mode"] = mode;
  object["nlink"] = st.nlink;
  object["uid"] = st.uid;
  object["gid"] = st.gid;
  object["size"] = st.size;
  object["mtime"] = st.mtime.seconds;
  object["mtime_ns"] = st.mtime.nanoseconds;
  return object;
}

const Error kBadText{Fault::protocol, "malformed answer",
                     "check that the versions of runeld and runelctl match", 0};

class CatJob : public EachMatchJob {
 public:
  using EachMatchJob::EachMatchJob;

 private:
  [[nodiscard]] std::string taskText() const override { return "read"; }

  void visit(const std::string& path) override {
    ask(runel::Request({"read", path}), [this, path](runel::Reply reply) {
      if (reply.ok()) {
        show(path, reply.takeOutput());
      }
      visited(reply, path);
    });
  }

  void show(const std::string& path, std::string&& content) {
    report().bytes(content);
    report().entry([&] {
      Json object{{"entry", "file"}};
      putBytes(object, "path", path);
      moveBytes(object, "content", std::move(content));
      return object;
    });
  }
};

class LsJob : public EachMatchJob {
  struct Entry {
    std::string name;
    std::optional<runel::Stat> st;
    std::string target;  // of a symbolic link
  };

 public:
  LsJob(JobContext context, const std::vector<std::string>& words, bool full)
      : EachMatchJob(std::move(context), words), full_(full) {}

 private:
  [[nodiscard]] std::string taskText() const override { return "readdir"; }
  [[nodiscard]] std::string laterOfVisits() const override {
    return full_ ? "lstat for each name in a directory, and for a path that is not a directory; "
                   "walktree for each symbolic link"
                 : "lstat for a path that is not a directory";
  }

  void visit(const std::string& path) override {
    ask(runel::Request({"readdir", path}), [this, path](const runel::Reply& reply) {
      // A symbolic link without a target is a file too.
      if (reply.answered() && (reply.number() == ENOTDIR || reply.number() == ENOENT)) {
        showFile(path);
        return;
      }
      if (reply.ok() && !take(path, reply.output())) {
        return;
      }
      if (!reply.ok() || !full_ || left_ == 0) {
        visited(reply, path);
      }
    });
  }

  // Returns false when the job has ended.
  bool take(const std::string& path, const std::string& text) {
    std::optional<std::vector<std::string>> names = runel::parseNames(text);
    if (!names) {
      fail(kBadText);
      return false;
    }
    if (paths().size() > 1) {
      report().line(report().name(path) + ":");
    }
    entries_.clear();
    left_ = full_ ? names->size() : 0;
    for (const std::string& name : *names) {
      if (full_) {
        entries_.push_back({name, std::nullopt, ""});
      } else {
        showName(name);
      }
    }
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      askAbout(path, i);
    }
    return true;
  }

  void showName(const std::string& name) {
    report().line(report().name(name));
    report().entry([&] {
      Json object{{"entry", "name"}};
      putBytes(object, "name", name);
      return object;
    });
  }

  void askAbout(const std::string& directory, std::size_t place) {
    ask(runel::Request({"lstat", runel::joinPath(directory, entries_[place].name)}),
        [this, directory, place](const runel::Reply& reply) {
          if (lost(reply, directory)) {
            return;
          }
          entries_[place].st = reply.ok() ? runel::parseStat(reply.output()) : std::nullopt;
          if (--left_ == 0) {
            askTargets(directory);
          }
        });
  }

  // A file that was removed meanwhile is not an error. A lost connection is.
  bool lost(const runel::Reply& reply, const std::string& directory) {
    if (!reply.answered()) {
      showEntries();
      visited(reply, directory);
    }
    return !reply.answered();
  }

  // "walktree" of a link prints its target. No other task does. Without a @p directory, the names
  // are whole paths.
  void askTargets(const std::string& directory) {
    for (std::size_t place = 0; place < entries_.size(); ++place) {
      if (entries_[place].st && entries_[place].st->isLink()) {
        ++left_;
        askTarget(directory, place);
      }
    }
    if (left_ == 0) {
      showAll(directory);
    }
  }

  void askTarget(const std::string& directory, std::size_t place) {
    ask(runel::Request({"walktree", runel::joinPath(directory, entries_[place].name)}),
        [this, directory, place](const runel::Reply& reply) {
          if (lost(reply, directory)) {
            return;
          }
          const auto tree = runel::parseTree(reply.output());
          if (tree && !tree->empty()) {
            entries_[place].target = tree->front().target;
          }
          if (--left_ == 0) {
            showAll(directory);
          }
        });
  }

  void showAll(const std::string& directory) {
    showEntries();
    visited(runel::Reply(), directory);
  }

  void showEntries() {
    for (const Entry& entry : std::exchange(entries_, {})) {
      if (entry.st) {
        showEntry(entry);
      }
    }
  }

  void showEntry(const Entry& entry) {
    report().line(longLine(*entry.st) + report().name(entry.name) +
                  (entry.target.empty() ? "" : " -> " + report().name(entry.target)));
    report().entry([&] {
      Json object = statJson(*entry.st);
      object["entry"] = "name";
      putBytes(object, "name", entry.name);
      if (!entry.target.empty()) {
        putBytes(object, "target", entry.target);
      }
      return object;
    });
  }

  void showFile(const std::string& path) {
    ask(runel::Request({"lstat", path}), [this, path](const runel::Reply& reply) {
      if (reply.ok() && full_) {
        entries_ = {{path, runel::parseStat(reply.output()), ""}};
        askTargets("");
        return;
      }
      if (reply.ok()) {
        showName(path);
      }
      visited(reply, path);
    });
  }

  const bool full_;
  std::vector<Entry> entries_;
  std::size_t left_ = 0;  // pending requests about entries
};

class TreeJob : public EachPathJob {
 public:
  using EachPathJob::EachPathJob;

 private:
  void visit(const std::string& path) override {
    ask(runel::Request({"walktree", path}), [this, path](const runel::Reply& reply) {
      const auto entries = !reply.answered() ? std::nullopt : runel::parseTree(reply.output());
      if (reply.answered() && !entries) {
        fail(kBadText);
        return;
      }
      if (entries) {
        show(path, *entries);
      }
      visited(reply, path);
    });
  }

  void show(const std::string& path, const std::vector<runel::TreeEntry>& entries) {
    for (const runel::TreeEntry& entry : entries) {
      const auto depth =
          entry.path == "." ? 0 : 1 + std::count(entry.path.begin(), entry.path.end(), '/');
      const std::string name = entry.path == "." ? path : runel::baseName(entry.path);
      report().line(std::string(static_cast<std::size_t>(depth) * 2, ' ') + report().name(name) +
                    (entry.type == 'd' ? "/" : "") +
                    (entry.type == 'l' ? " -> " + report().name(entry.target) : "") +
                    (entry.type == '-' ? "  " + sizeText(entry.size) : ""));
      showJson(entry);
    }
  }

  void showJson(const runel::TreeEntry& entry) {
    report().entry([&] {
      Json object{{"entry", "name"}};
      putBytes(object, "path", entry.path);
      object["type"] = std::string(1, entry.type);
      object["mode"] = octalMode(entry.mode);
      object["uid"] = entry.uid;
      object["gid"] = entry.gid;
      object["size"] = entry.size;
      object["mtime"] = entry.mtime;
      if (entry.type == 'l') {
        putBytes(object, "target", entry.target);
      }
      return object;
    });
  }
};

// The task does not report the size of a block. On the file systems of controllers it equals
// st_blksize.
class DfJob : public EachPathJob {
 public:
  using EachPathJob::EachPathJob;

 private:
  void visit(const std::string& path) override {
    ask(runel::Request({"stat", path}), [this](const runel::Reply& reply) {
      const std::optional<runel::Stat> st =
          reply.ok() ? runel::parseStat(reply.output()) : std::nullopt;
      blockSize_ = st ? st->blksize : 0;
    });
    ask(runel::Request({"freeblocks", path}), [this, path](const runel::Reply& reply) {
      if (reply.ok()) {
        show(path, reply.output());
      }
      visited(reply, path);
    });
  }

  void show(const std::string& path, const std::string& text) {
    const std::uint64_t blocks = std::strtoull(text.c_str(), nullptr, 10);
    report().line(report().name(path) + ": " + std::to_string(blocks) + " blocks of " +
                  std::to_string(blockSize_) + " bytes free, " + sizeText(blocks * blockSize_));
    report().entry([&] {
      Json object{{"entry", "filesystem"}};
      putBytes(object, "path", path);
      object["free_blocks"] = blocks;
      object["block_size"] = blockSize_;
      return object;
    });
  }

  std::uint64_t blockSize_ = 0;
};

class StatJob : public EachPathJob {
 public:
  StatJob(JobContext context, std::vector<std::string> paths, const char* task, bool raw)
      : EachPathJob(std::move(context), std::move(paths)), task_(task), raw_(raw) {}

 private:
  void visit(const std::string& path) override {
    ask(runel::Request({task_, path}), [this, path](const runel::Reply& reply) {
      const std::optional<runel::Stat> st =
          reply.ok() ? runel::parseStat(reply.output()) : std::nullopt;
      if (reply.ok() && !st) {
        fail(kBadText);
        return;
      }
      if (st) {
        show(path, *st, reply.output());
      }
      visited(reply, path);
    });
  }

  void show(const std::string& path, const runel::Stat& st, const std::string& text) {
    report().bytes(raw_ ? text : readable(path, st));
    report().entry([&] {
      Json object = statJson(st);
      object["entry"] = "name";
      putBytes(object, "path", path);
      object["dev"] = st.dev;
      object["ino"] = st.ino;
      object["rdev"] = st.rdev;
      object["blksize"] = st.blksize;
      object["blocks"] = st.blocks;
      object["atime"] = st.atime.seconds;
      object["ctime"] = st.ctime.seconds;
      return object;
    });
  }

  [[nodiscard]] std::string readable(const std::string& path, const runel::Stat& st) {
    const auto number = [](std::uint64_t value) { return std::to_string(value); };
    return "  path: " + report().name(path) + "\n  type: " + typeName(st.mode) +
           "\n  mode: " + modeText(zell::typeLetter(st.mode), st.mode) + " (" + octalMode(st.mode) +
           ")" + "\n owner: " + number(st.uid) + ":" + number(st.gid) +
           "\n  size: " + number(st.size) + " bytes, " + number(st.blocks) + " blocks of 512" +
           "\n links: " + number(st.nlink) + ", inode " + number(st.ino) + " on device " +
           number(st.dev) + "\naccess: " + secondText(st.atime) +
           "\nmodify: " + secondText(st.mtime) + "\nchange: " + secondText(st.ctime) + "\n";
  }

  static const char* typeName(std::uint32_t mode) {
    static const std::pair<char, const char*> kNames[] = {
        {'-', "file"},          {'d', "directory"},
        {'l', "symbolic link"}, {'c', "character device"},
        {'p', "named pipe"},    {'b', "block device"},
        {'s', "socket"}};
    for (const auto& [letter, name] : kNames) {
      if (letter == zell::typeLetter(mode)) {
        return name;
      }
    }
    return "?";
  }

  const char* const task_;
  const bool raw_;
};

// Removes files with the task "unlink". With -r, runs rm on the device, because no task removes
// directories.
class RmJob : public EachMatchJob {
 public:
  RmJob(JobContext context, const std::vector<std::string>& words, bool recursive)
      : EachMatchJob(std::move(context), words), recursive_(recursive) {}

 private:
  [[nodiscard]] std::string taskText() const override {
    return recursive_ ? "exec rm -r" : "unlink";
  }

  void visit(const std::string& path) override {
    const runel::Request one = recursive_ ? runel::Request::exec({"rm", "-r", "--", path}, 0)
                                          : runel::Request({"unlink", path});
    ask(one, [this, path](const runel::Reply& reply) {
      if (!reply.ok() && recursive_ && !reply.output().empty()) {
        report().warn(reply.output().substr(0, reply.output().find('\n')));
      }
      visited(reply, path);
    });
  }

  const bool recursive_;
};

class MvJob : public Job {
 public:
  MvJob(JobContext context, std::string from, std::string to)
      : Job(std::move(context)), from_(std::move(from)), to_(std::move(to)) {}

  // If the target is a directory, moves the file into it, like mv(1). "rename" alone does not.
  void start() override {
    ask(runel::Request({"stat", to_}), [this](const runel::Reply& reply) {
      const std::optional<runel::Stat> st =
          reply.ok() ? runel::parseStat(reply.output()) : std::nullopt;
      if (!reply.answered()) {
        fail(reply.error());
        return;
      }
      move(st && st->isDirectory() ? runel::joinPath(to_, runel::baseName(from_)) : to_);
    });
  }
  [[nodiscard]] std::string sentLater() const override {
    return "rename " + from_ + " to " + to_ + ", or into it if it is a directory";
  }

 private:
  void move(const std::string& to) {
    ask(runel::Request({"rename", from_, to}), [this, to](const runel::Reply& reply) {
      if (reply.ok()) {
        succeed();
      } else {
        fail(reply, "mv " + from_ + " " + to);
      }
    });
  }

  const std::string from_;
  const std::string to_;
};

class MvCommand : public Command {
 public:
  MvCommand() : Command("mv", "rename a file or directory, or move it into a directory") {}

  void define(CLI::App& app) override {
    app.add_option("FROM", from_)->required();
    app.add_option("TO", to_)->required();
  }
  std::unique_ptr<Job> job(JobContext context) override {
    const Settings& settings = context.settings;
    return std::make_unique<MvJob>(std::move(context), settings.remote(from_),
                                   settings.remote(to_));
  }
  [[nodiscard]] bool destructive() const override { return true; }

 private:
  std::string from_;
  std::string to_;
};

template <typename EachJob>
class EachPathCommand : public PathsCommand {
 public:
  using PathsCommand::PathsCommand;
  std::unique_ptr<Job> job(JobContext context) override {
    std::vector<std::string> all = paths(context.settings);
    return std::make_unique<EachJob>(std::move(context), std::move(all));
  }
};

class CatCommand : public PathsCommand {
 public:
  CatCommand() : PathsCommand("cat", "print files", "") {}
  std::unique_ptr<Job> job(JobContext context) override {
    const std::vector<std::string> all = words(context.settings);
    return std::make_unique<CatJob>(std::move(context), all);
  }
};

class LsCommand : public PathsCommand {
 public:
  LsCommand() : PathsCommand("ls", "list a directory", ".") {}
  void define(CLI::App& app) override {
    app.add_flag("-l", full_, "print mode, owner, size and time");
    PathsCommand::define(app);
  }
  std::unique_ptr<Job> job(JobContext context) override {
    const std::vector<std::string> all = words(context.settings);
    return std::make_unique<LsJob>(std::move(context), all, full_);
  }

 private:
  bool full_ = false;
};

class StatCommand : public PathsCommand {
 public:
  StatCommand(const char* task, const char* help) : PathsCommand(task, help, ""), task_(task) {}
  void define(CLI::App& app) override {
    app.add_flag("--raw", raw_, "print the unformatted answer of the task");
    PathsCommand::define(app);
  }
  std::unique_ptr<Job> job(JobContext context) override {
    std::vector<std::string> all = paths(context.settings);
    return std::make_unique<StatJob>(std::move(context), std::move(all), task_, raw_);
  }

 private:
  const char* const task_;
  bool raw_ = false;
};

class RmCommand : public PathsCommand {
 public:
  RmCommand() : PathsCommand("rm", "remove files", "") {}
  void define(CLI::App& app) override {
    app.add_flag("-r", recursive_, "remove directories recursively, with the device's rm");
    PathsCommand::define(app);
  }
  std::unique_ptr<Job> job(JobContext context) override {
    const std::vector<std::string> all = words(context.settings);
    return std::make_unique<RmJob>(std::move(context), all, recursive_);
  }
  [[nodiscard]] bool destructive() const override { return true; }

 private:
  bool recursive_ = false;
};

}  // namespace

void addFileCommands(Commands& commands) {
  commands.push_back(std::make_unique<CatCommand>());
  commands.push_back(std::make_unique<LsCommand>());
  commands.push_back(
      std::make_unique<EachPathCommand<TreeJob>>("tree", "print a directory tree", "."));
  commands.push_back(
      std::make_unique<EachPathCommand<DfJob>>("df", "print the free space of a file system", "/"));
  commands.push_back(
      std::make_unique<StatCommand>("stat", "print the attributes of a file; follow links"));
  commands.push_back(std::make_unique<StatCommand>(
      "lstat", "print the attributes of a file; do not follow links"));
  commands.push_back(std::make_unique<RmCommand>());
  commands.push_back(std::make_unique<MvCommand>());
}

}  // namespace runelctl
