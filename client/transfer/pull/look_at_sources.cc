// SPDX-License-Identifier: Apache-2.0
// Gets the attributes of all sources and chooses their local paths.
#include <cerrno>

#include "client/core/paths.h"
#include "client/transfer/local_directory.h"
#include "client/transfer/pull/stages.h"

namespace runel {
namespace {

// Why an entry of a tree is left out. Nothing if it is copied. A device must not be able to write
// outside of the target, neither now nor through a link that the next pull takes for the target.
std::optional<std::string> reasonToSkip(const TreeEntry& entry) {
  if (!staysBelow(entry.path)) {
    return "its path leads out of the directory";
  }
  if (entry.path == "." && entry.type != 'd') {
    return "the top of a directory tree is not a directory";
  }
  if (entry.type != 'd' && entry.type != 'l' && entry.type != '-') {
    return "not a file, directory or link";
  }
  return entry.target.find('\0') == std::string::npos
             ? std::nullopt
             : std::make_optional<std::string>("a link to an impossible path");
}

Stat statOf(const TreeEntry& entry) {
  Stat st;
  st.mode = entry.mode;
  st.size = entry.size;
  st.mtime.seconds = entry.mtime;
  return st;
}

class LookAtSources : public PullStage {
 public:
  using PullStage::PullStage;

  void start(Next next) override {
    if (const auto error = work().filter.add(work().options().excludes())) {
      work().end(*error);
      return;
    }
    next_ = std::move(next);
    lookAtNext();
  }

 private:
  void lookAtNext() {
    if (at_ == work().sources.size()) {
      next_();
      return;
    }
    const std::string& source = work().sources[at_++];
    work().ask(Request({"stat", source}),
               [this, &source](const Reply& reply) { lookAt(source, reply); });
  }

  void lookAt(const std::string& source, const Reply& reply) {
    const std::optional<Stat> st = statIn(reply);
    if (!st) {
      work().fail(reply.ok() ? malformedTree() : reply.error(source));
    } else if (work().filter.leavesOutSource(baseName(source), st->isDirectory())) {
      // Not an error: the user asked for it.
    } else if (st->isDirectory() && work().options().recursive()) {
      walk(source);
      return;
    } else if (st->isDirectory()) {
      work().fail(
          Error(Kind::device, Cause::directory, source + ": " + systemText(EISDIR), EISDIR));
    } else if (!st->isRegular()) {
      work().fail(Error(Kind::device, Cause::fileType, source + ": not a file or directory"));
    } else {
      const Place place = placeOf(source);
      addFile({source, work().into ? joinPath(place.name, ".") : baseName(work().root), place.path,
               *st, true, false, false, ""});
    }
    lookAtNext();
  }

  // The trailing dot follows a symbolic link to a directory.
  void walk(const std::string& source) {
    work().ask(Request({"walktree", source + "/."}), [this, &source](const Reply& reply) {
      const auto entries = parseTree(reply.output());
      if (!reply.ok()) {
        work().fail(reply.error(source));
      }
      if (!entries) {
        work().fail(malformedTree());
      } else {
        work().whole = !work().into && !entries->empty();
        const Place place = placeOf(source);
        for (const TreeEntry& entry : *entries) {
          add(source, place, entry);
        }
      }
      lookAtNext();
    });
  }

  // Where a source goes.
  struct Place {
    std::string name;  // relative to the target; "" is the target itself
    std::string path;  // for messages
  };

  [[nodiscard]] Place placeOf(const std::string& source) const {
    const std::string name = baseName(source);
    const bool plain = name != "." && name != ".." && name != "/";
    return work().into && plain ? Place{name, joinPath(work().root, name)} : Place{"", work().root};
  }

  void add(const std::string& source, const Place& place, const TreeEntry& entry) {
    PullItem item{joinPath(source, entry.path),
                  joinPath(place.name, entry.path),
                  joinPath(place.path, entry.path),
                  statOf(entry),
                  false,
                  false,
                  false,
                  entry.target};
    if (work().filter.hides(entry.path, entry.type == 'd')) {
      return;
    }
    if (const auto reason = reasonToSkip(entry)) {
      work().warn(item.source + ": skipped, " + *reason);
    } else if (entry.type == 'd') {
      work().directories.push_back(std::move(item));
    } else if (entry.type == 'l') {
      work().links.push_back(std::move(item));
    } else {
      addFile(std::move(item));
    }
  }

  void addFile(PullItem item) {
    work().expect(item.st.size);
    (item.st.size > work().pieceBytes() ? work().large : work().small).push_back(std::move(item));
  }

  Next next_;
  std::size_t at_ = 0;
};

}  // namespace

std::unique_ptr<Stage> lookAtSources(PullWork& work) {
  return std::make_unique<LookAtSources>(work);
}

}  // namespace runel
