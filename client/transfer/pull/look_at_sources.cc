// SPDX-License-Identifier: Apache-2.0
// Gets the attributes of all sources and chooses their local paths.
#include <cerrno>
#include <string_view>

#include "client/core/paths.h"
#include "client/transfer/pull/stages.h"

namespace runel {
namespace {

// A device must not be able to write outside of the target directory.
bool staysBelow(std::string_view relative) {
  while (true) {
    const std::size_t slash = relative.find('/');
    const std::string_view part = relative.substr(0, slash);
    if (part.empty() || part == ".." || part.find('\0') != std::string_view::npos) {
      return false;
    }
    if (slash == std::string_view::npos) {
      return true;
    }
    relative.remove_prefix(slash + 1);
  }
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
    } else if (st->isDirectory() && work().options().recursive()) {
      walk(source);
      return;
    } else if (st->isDirectory()) {
      work().fail(
          Error(Kind::device, Cause::directory, source + ": " + systemText(EISDIR), EISDIR));
    } else if (!st->isRegular()) {
      work().fail(Error(Kind::device, Cause::fileType, source + ": not a file or directory"));
    } else {
      addFile({source, placeOf(source), *st, true, false, ""});
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
        const std::string place = placeOf(source);
        for (const TreeEntry& entry : *entries) {
          add({joinPath(source, entry.path), joinPath(place, entry.path), statOf(entry), false,
               false, entry.target},
              entry);
        }
      }
      lookAtNext();
    });
  }

  [[nodiscard]] std::string placeOf(const std::string& source) const {
    const std::string name = baseName(source);
    const bool plain = name != "." && name != ".." && name != "/";
    return work().into && plain ? joinPath(work().root, name) : work().root;
  }

  void add(PullItem item, const TreeEntry& entry) {
    if (!staysBelow(entry.path)) {
      work().warn(item.source + ": skipped, its path leads out of the directory");
    } else if (entry.type == 'd') {
      work().directories.push_back(std::move(item));
    } else if (entry.type == 'l') {
      work().links.push_back(std::move(item));
    } else if (entry.type == '-') {
      addFile(std::move(item));
    } else {
      work().warn(item.source + ": skipped, not a file, directory or link");
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
