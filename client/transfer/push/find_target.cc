// SPDX-License-Identifier: Apache-2.0
// Chooses the path of each entry on the device.
#include "client/core/paths.h"
#include "client/transfer/push/stages.h"

namespace runel {
namespace {

class FindTarget : public PushStage {
 public:
  FindTarget(PushWork& work, bool sync) : PushStage(work), sync_(sync) {}

  void start(Next next) override {
    const bool single = isSingleFile();
    work().ask(Request({"stat", work().root}), [this, single, next](const Reply& reply) {
      place(statIn(reply));
      if (!single) {
        next();
      }
    });
    if (single) {
      work().ask(Request({"lstat", work().root}), [this, next](const Reply& reply) {
        work().rootItself = statIn(reply);
        next();
      });
    }
  }

 private:
  // The target of a single file is most often `root`. To look at it now saves a round trip.
  [[nodiscard]] bool isSingleFile() const {
    const auto& sources = work().files();
    return sources.size() == 1 && sources.front().entries.size() == 1 &&
           sources.front().entries.front().type == '-' && !work().root.empty() &&
           work().root.back() != '/';
  }

  // Like cp(1): several sources, a trailing slash or an existing directory mean "copy into".
  void place(const std::optional<Stat>& there) {
    const std::string& root = work().root;
    const bool inside = (there && there->isDirectory()) || (root.size() > 1 && root.back() == '/');
    const bool into = !sync_ && (inside || work().files().size() > 1);
    for (const std::string& skipped : work().sources.skipped()) {
      work().warn(skipped);
    }
    if (into && !there) {
      static const LocalEntry kPlain{'d', "", "", "", 0755, 0, {}};
      work().directories.push_back({&kPlain, root, false, true, std::nullopt});
    }
    for (const LocalSource& source : work().files()) {
      const bool directory = !source.entries.empty() && source.entries.front().type == 'd';
      if (sync_ || !work().filter().leavesOutSource(source.name, directory)) {
        add(source, into ? joinPath(root, source.name) : root);
      }
    }
  }

  void add(const LocalSource& source, const std::string& base) {
    for (const LocalEntry& entry : source.entries) {
      listFor(entry).push_back({&entry,
                                entry.relative.empty() ? base : joinPath(base, entry.relative),
                                false, false, std::nullopt});
      work().expect(entry.size);
    }
  }

  PushItems& listFor(const LocalEntry& entry) const {
    if (entry.type == 'd') {
      return work().directories;
    }
    if (entry.type == 'l') {
      return work().links;
    }
    return entry.size > work().pieceBytes() ? work().large : work().small;
  }

  const bool sync_;
};

}  // namespace

std::unique_ptr<Stage> findPushTarget(PushWork& work) {
  return std::make_unique<FindTarget>(work, false);
}

std::unique_ptr<Stage> findSyncTarget(PushWork& work) {
  return std::make_unique<FindTarget>(work, true);
}

}  // namespace runel
