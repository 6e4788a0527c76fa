// SPDX-License-Identifier: Apache-2.0
#include "commands/push_job.h"

#include <utility>

#include "commands/push_parts.h"
#include "output/text.h"

namespace runelctl {

PushJob::PushJob(JobContext context, std::shared_ptr<const PushPlan> plan)
    : TransferJob(std::move(context)), plan_(std::move(plan)), root_(remote(plan_->remote)) {}

PushJob::~PushJob() = default;

std::optional<runel::Request> PushJob::cleanUp() const {
  if (batch_) {
    return runel::Request::exec({"rm", "-r", "-f", "--", batch_->stage}, 0);
  }
  if (bigFile_ && !plan_->resume) {
    return runel::Request({"unlink", bigFile_->part});
  }
  return std::nullopt;
}

void PushJob::start() {
  ask(runel::Request({"stat", root_}), [this](const runel::Reply& reply) { place(reply); });
}

// The amounts are known, but the requests depend on the files on the device.
std::string PushJob::sentLater() const {
  std::size_t files = 0;
  std::size_t directories = 0;
  std::size_t links = 0;
  std::uint64_t bytes = 0;
  for (const LocalSource& source : plan_->sources) {
    for (const LocalEntry& entry : source.entries) {
      files += entry.type == '-' ? 1 : 0;
      directories += entry.type == 'd' ? 1 : 0;
      links += entry.type == 'l' ? 1 : 0;
      bytes += entry.size;
    }
  }
  return std::string(plan_->sync ? "walktree of the remote directory; for the differences among "
                                 : "for ") +
         countText(files, "file") + " (" + sizeText(bytes) + "), " + std::to_string(directories) +
         (directories == 1 ? " directory" : " directories") + " and " + countText(links, "link") +
         ": fileexists and lstat of the targets; mkdir and ln; write (in pieces, or as an archive "
         "for tar) and "
         "rename; chmod and touch" +
         (plan_->checksum ? "; sha256sum" : "") +
         (plan_->remove ? "; rm of files that are missing here" : "");
}

// Like cp(1): several sources, a trailing slash or an existing directory mean "copy into".
void PushJob::place(const runel::Reply& reply) {
  if (!alive(reply)) {
    return;
  }
  const std::optional<runel::Stat> st =
      reply.ok() ? runel::parseStat(reply.output()) : std::nullopt;
  const bool directory = (st && st->isDirectory()) || (root_.size() > 1 && root_.back() == '/');
  const bool into = !plan_->sync && (directory || plan_->sources.size() > 1);
  for (const std::string& left : plan_->left) {
    report().warn(left + ": skipped, not a file, directory or link");
  }
  if (into && !st) {
    static const LocalEntry kPlain{'d', "", "", "", 0755, 0, {}};
    directories_.push_back({&kPlain, root_, false, true, std::nullopt});
  }
  for (const LocalSource& source : plan_->sources) {
    plan(into ? runel::joinPath(root_, source.name) : root_, source);
  }
  if (plan_->sync) {
    lookAtTree();
  } else {
    lookAtDirectories();
  }
}

void PushJob::plan(const std::string& base, const LocalSource& source) {
  for (const LocalEntry& entry : source.entries) {
    const std::string target =
        entry.relative.empty() ? base : runel::joinPath(base, entry.relative);
    const Item item{&entry, target, false, false, std::nullopt};
    if (entry.type == 'd') {
      directories_.push_back(item);
    } else if (entry.type == 'l') {
      links_.push_back(item);
    } else if (entry.size > pieceBytes()) {
      big_.push_back(item);
    } else {
      small_.push_back(item);
    }
    expect(entry.size);
  }
}

// The targets in a new directory need no check.
void PushJob::lookAtDirectories() {
  const auto source = [this, at = std::size_t{0}]() mutable -> std::optional<Pipeline::Item> {
    if (at == directories_.size()) {
      return std::nullopt;
    }
    const Item& item = directories_[at++];
    return Pipeline::Item{runel::Request({"fileexists", item.target}), 0,
                          [this, &item](const runel::Reply& reply) {
                            if (!reply.ok()) {
                              newDirectories_.insert(item.target);
                            }
                            return alive(reply);
                          }};
  };
  pipe(source, [this] { makeDirectories(); });
}

void PushJob::makeDirectories() {
  ProgramRuns run{{"mkdir", "-p", "--"}, {}};
  for (const Item& item : directories_) {
    run.names.push_back(item.target);
  }
  runPrograms({run}, "directories not created", [this] { lookAtTargets(); });
}

// Gets owner and type of existing targets: the owner is preserved and symbolic links are followed,
// as "write" does.
void PushJob::lookAtTargets() {
  std::vector<Item*> items;
  for (Items* list : {&small_, &big_}) {
    for (Item& item : *list) {
      if (newDirectories_.count(runel::directoryOf(item.target)) == 0) {
        items.push_back(&item);
      }
    }
  }
  const auto source = [this, items,
                       at = std::size_t{0}]() mutable -> std::optional<Pipeline::Item> {
    if (at == items.size()) {
      return std::nullopt;
    }
    Item& item = *items[at++];
    return Pipeline::Item{
        runel::Request({"lstat", item.target}), 0, [this, &item](const runel::Reply& reply) {
          item.there = reply.ok() ? runel::parseStat(reply.output()) : std::nullopt;
          return alive(reply);
        }};
  };
  pipe(source, [this] { sendArchives(); });
}

void PushJob::sendSmallFiles() {
  batch_.reset();
  next_ = 0;
  pipe([this] { return nextSmallFile(); }, [this] { sendBigFiles(); });
}

std::optional<Pipeline::Item> PushJob::nextSmallFile() {
  while (next_ < small_.size()) {
    Item& item = small_[next_++];
    if (item.complete || item.failed) {
      continue;
    }
    std::string content;
    if (const auto error = readSmallFile(item, content)) {
      itemFailed(item, *error);
      continue;
    }
    const std::size_t size = content.size();
    const auto handle = [this, &item, size](const runel::Reply& reply) {
      if (!alive(reply)) {
        return false;
      }
      if (reply.ok()) {
        fileDone();
        count(size, item.target);
      } else {
        itemFailed(item, reply.error(item.target));
      }
      return true;
    };
    return Pipeline::Item{runel::Request({"write", item.target}, std::move(content)), size, handle};
  }
  return std::nullopt;
}

std::optional<Error> PushJob::readSmallFile(const Item& item, std::string& content) const {
  LocalReader reader;
  std::optional<Error> error = reader.open(item.entry->path);
  if (!error && reader.size() > 2 * pieceBytes()) {
    return reader.changedError();
  }
  if (!error) {
    error = reader.read(0, static_cast<std::size_t>(reader.size()), content);
  }
  return error || !reader.changed() ? error : reader.changedError();
}

void PushJob::makeLinks() {
  bigFile_.reset();
  std::vector<ProgramRuns> runs;
  for (const Item& item : links_) {
    runs.push_back({{"ln", "-s", "-f", "-n", "--", item.entry->target}, {item.target}});
  }
  runPrograms(std::move(runs), "links not created", [this] { setDirectories(); });
}

void PushJob::itemFailed(Item& item, const Error& error) {
  item.failed = true;
  failed(error);
}

}  // namespace runelctl
