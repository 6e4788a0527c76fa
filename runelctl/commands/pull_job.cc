// SPDX-License-Identifier: Apache-2.0
#include "commands/pull_job.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <sys/stat.h>

#include "commands/pull_parts.h"
#include "commands/push_job.h"

namespace runelctl {
namespace {

const Error kBadTree{Fault::protocol, "malformed directory tree", "", 0};

bool isLocalDirectory(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// A device must not be able to write outside of the target directory.
bool staysBelow(const std::string& relative) {
  std::string_view rest = relative;
  while (true) {
    const std::size_t slash = rest.find('/');
    const std::string_view part = rest.substr(0, slash);
    if (part.empty() || part == ".." || part.find('\0') != std::string_view::npos) {
      return false;
    }
    if (slash == std::string_view::npos) {
      return true;
    }
    rest.remove_prefix(slash + 1);
  }
}

runel::Stat recordOf(const runel::TreeEntry& entry) {
  runel::Stat st;
  st.mode = entry.mode;
  st.size = entry.size;
  st.mtime.seconds = entry.mtime;
  return st;
}

// A local directory name for a device name.
std::string directoryName(const std::string& device) {
  std::string name = device;
  std::replace(name.begin(), name.end(), '/', '_');
  return name == "." || name == ".." ? "_" : name;
}

}  // namespace

PullJob::PullJob(JobContext context, PullPlan plan)
    : TransferJob(std::move(context)), plan_(std::move(plan)), base_(plan_.local) {}

PullJob::~PullJob() = default;

void PullJob::start() {
  into_ = plan_.apart || plan_.remotes.size() > 1 || base_.back() == '/' || isLocalDirectory(base_);
  if (plan_.apart) {
    base_ = runel::joinPath(base_, directoryName(device().address().name()));
  }
  if (into_ && !settings().dryRun) {
    for (const std::string& directory : {plan_.local, base_}) {
      const auto error = isLocalDirectory(directory) ? std::nullopt : makeLocalDirectory(directory);
      if (error) {
        fail(*error);
        return;
      }
      (void)(directory == base_ || chmod(directory.c_str(), 0755));  // mkdir made it with mode 0700
    }
  }
  lookAtNext();
}

std::string PullJob::sentLater() const {
  return std::string("stat for each further path; ") +
         (plan_.recursive ? "walktree for directories, and stat for their entries; " : "") +
         "read for each file, dd in pieces for large ones" + (plan_.checksum ? "; sha256sum" : "");
}

void PullJob::lookAtNext() {
  if (next_ == plan_.remotes.size()) {
    makeDirectories();
    return;
  }
  const std::string path = remote(plan_.remotes[next_++]);
  ask(runel::Request({"stat", path}),
      [this, path](const runel::Reply& reply) { lookAt(path, reply); });
}

std::string PullJob::placeOf(const std::string& remote) const {
  const std::string name = runel::baseName(remote);
  const bool plain = name != "." && name != ".." && name != "/";
  return into_ && plain ? runel::joinPath(base_, name) : base_;
}

void PullJob::lookAt(const std::string& remote, const runel::Reply& reply) {
  if (!alive(reply)) {
    return;
  }
  const std::optional<runel::Stat> st =
      reply.ok() ? runel::parseStat(reply.output()) : std::nullopt;
  if (!st) {
    failed(reply.ok() ? kBadTree : reply.error(remote));
  } else if (st->isDirectory() && plan_.recursive) {
    // The trailing dot follows a symbolic link to a directory.
    ask(runel::Request({"walktree", remote + "/."}),
        [this, remote](const runel::Reply& tree) { takeTree(remote, tree); });
    return;
  } else if (st->isDirectory()) {
    failed(
        {Fault::task, remote + ": " + runel::systemText(EISDIR), "use -r for directories", EISDIR});
  } else if (!st->isRegular()) {
    failed({Fault::task, remote + ": not a file or directory", "", 0});
  } else {
    auto& list = st->size > pieceBytes() ? big_ : small_;
    list.push_back({remote, placeOf(remote), *st, true, false, ""});
    expect(st->size);
  }
  lookAtNext();
}

void PullJob::takeTree(const std::string& remote, const runel::Reply& reply) {
  if (!alive(reply)) {
    return;
  }
  const auto entries = runel::parseTree(reply.output());
  if (!reply.ok()) {
    failed(reply.error(remote));
  }
  if (!entries) {
    failed(kBadTree);
  } else {
    const std::string base = placeOf(remote);
    for (const runel::TreeEntry& entry : *entries) {
      takeEntry(remote, base, entry);
    }
  }
  lookAtNext();
}

void PullJob::takeEntry(const std::string& remote, const std::string& base,
                        const runel::TreeEntry& entry) {
  Item item{runel::joinPath(remote, entry.path),
            runel::joinPath(base, entry.path),
            recordOf(entry),
            false,
            false,
            entry.target};
  if (!staysBelow(entry.path)) {
    report().warn(item.source + ": skipped, its path leads out of the directory");
  } else if (entry.type == 'd') {
    directories_.push_back(std::move(item));
  } else if (entry.type == 'l') {
    links_.push_back(std::move(item));
  } else if (entry.type != '-') {
    report().warn(item.source + ": skipped, not a file, directory or link");
  } else {
    expect(entry.size);
    (entry.size > pieceBytes() ? big_ : small_).push_back(std::move(item));
  }
}

void PullJob::makeDirectories() {
  for (Item& directory : directories_) {
    if (const auto error = makeLocalDirectory(directory.path)) {
      itemFailed(directory, *error);
    }
  }
  // walktree reports only whole seconds: get the exact times.
  const auto source = [this, at = std::size_t{0}]() mutable -> std::optional<Pipeline::Item> {
    if (at == directories_.size()) {
      return std::nullopt;
    }
    Item& item = directories_[at++];
    return Pipeline::Item{
        runel::Request({"stat", item.source}), 0,
        [this, &item](const runel::Reply& reply) { return statTaken(item, reply); }};
  };
  pipe(source, [this] { fetchSmallFiles(); });
}

void PullJob::fetchSmallFiles() {
  next_ = 0;
  pipe([this] { return nextSmallFile(); }, [this] { fetchBigFiles(); });
}

// Requests the stat record of each file, unless it is known, and then its content.
std::optional<Pipeline::Item> PullJob::nextSmallFile() {
  if (next_ == small_.size()) {
    return std::nullopt;
  }
  Item& item = small_[next_];
  if (!item.known && statNext_) {
    statNext_ = false;
    return Pipeline::Item{
        runel::Request({"stat", item.source}), 0,
        [this, &item](const runel::Reply& reply) { return statTaken(item, reply); }};
  }
  statNext_ = true;
  ++next_;
  return Pipeline::Item{
      runel::Request({"read", item.source}), item.st.size,
      [this, &item](const runel::Reply& reply) { return contentTaken(item, reply); }};
}

bool PullJob::statTaken(Item& item, const runel::Reply& reply) {
  const std::optional<runel::Stat> st =
      reply.ok() ? runel::parseStat(reply.output()) : std::nullopt;
  item.known = st.has_value();
  item.st = st.value_or(item.st);
  return alive(reply);
}

bool PullJob::contentTaken(Item& item, const runel::Reply& reply) {
  if (!alive(reply)) {
    return false;
  }
  if (!reply.ok()) {
    itemFailed(item, reply.error(item.source));
    return true;
  }
  // A file of size 0 may have content, for example below /proc.
  if (!item.known || (item.st.size != 0 && item.st.size != reply.output().size())) {
    itemFailed(item, changedThere(item.source));
    return true;
  }
  LocalWriter writer;
  std::optional<Error> error = writer.begin(item.path, false);
  error = error ? error : writer.add(reply.output());
  error = error ? error : writer.finish(item.st.mode, item.st.mtime);
  if (error) {
    itemFailed(item, *error);
  } else {
    item.st.size = reply.output().size();
    count(item.st.size, item.source);
    fileDone();
  }
  return true;
}

// Links are created last, so that no file is written through a link from the device.
void PullJob::makeLinks() {
  bigFile_.reset();
  for (Item& link : links_) {
    if (const auto error = makeLocalLink(link.path, link.target)) {
      itemFailed(link, *error);
    }
  }
  compareChecksums();
}

void PullJob::compareChecksums() {
  ProgramRuns run{{"sha256sum", "--"}, {}};
  auto left = std::make_shared<std::vector<Item*>>();
  for (auto* list : {&small_, &big_}) {
    for (Item& item : *list) {
      if (plan_.checksum && !item.failed) {
        run.names.push_back(item.source);
        left->push_back(&item);
      }
    }
  }
  std::reverse(left->begin(), left->end());
  pipe(programSource({run},
                     [this, left](const ProgramRun& done) { return compareRun(done, *left); }),
       [this] { finishDirectories(); });
}

// @p left has the items without a compared checksum; the next one is at its end.
bool PullJob::compareRun(const ProgramRun& done, std::vector<Item*>& left) {
  if (!alive(done.reply)) {
    return false;
  }
  const auto sums = parseChecksums(done.reply.output(), done.names.size());
  if (!done.reply.ok() || !sums) {
    warnOnce("checksums not verified: " + programTrouble(done.program, done.reply));
    return false;
  }
  for (const std::string& sum : *sums) {
    Item& item = *left.back();
    left.pop_back();
    if (localSha256(item.path, item.st.size) != sum) {
      itemFailed(item, {Fault::local, item.path + ": checksum mismatch", "retry the transfer", 0});
    }
  }
  return true;
}

// Innermost directories first: a change in a directory changes its time.
void PullJob::finishDirectories() {
  for (auto directory = directories_.rbegin(); directory != directories_.rend(); ++directory) {
    const auto error = directory->failed ? std::nullopt
                                         : finishLocalDirectory(directory->path, directory->st.mode,
                                                                directory->st.mtime);
    if (error) {
      itemFailed(*directory, *error);
    }
  }
  endTransfer();
}

void PullJob::itemFailed(Item& item, const Error& error) {
  item.failed = true;
  failed(error);
}

}  // namespace runelctl
