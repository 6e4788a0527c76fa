// SPDX-License-Identifier: Apache-2.0
#include "commands/transfer_job.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <runel/records.h>

#include "base/unique_fd.h"
#include "client/core/paths.h"
#include "commands/change_text.h"
#include "output/text.h"

namespace runelctl {
namespace {

using Way = TransferPlan::Way;

constexpr std::size_t kOutputPart = 65536;
constexpr mode_t kOutputMode = 0600;

// A local directory name for a device name.
std::string directoryName(const std::string& device) {
  std::string name = device;
  std::replace(name.begin(), name.end(), '/', '_');
  return name == "." || name == ".." ? "_" : name;
}

// The name of the temporary file for the content of @p path, as warnings show it.
std::string outputName(const std::string& path) {
  const std::string name = runel::baseName(path);
  const bool usable = !name.empty() && name != "/" && name != "." && name != "..";
  return usable ? name : "content";
}

// The directory with a directory for each device.
std::optional<Error> makeOuterDirectory(const std::string& path) {
  struct stat st {};
  if (mkdir(path.c_str(), 0700) == 0) {
    (void)chmod(path.c_str(), 0755);  // the directories in it stay private
    return std::nullopt;
  }
  const int number = errno;
  const bool there = stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
  return there ? std::nullopt : std::make_optional(localError(path, number));
}

}  // namespace

TransferJob::TransferJob(JobContext context, TransferPlan plan)
    : Job(std::move(context)), plan_(std::move(plan)) {
  plan_.options.setMemory(settings().memoryShare());
  if (!settings().plan) {
    plan_.options.setProgress([this](const runel::Progress& progress) {
      report().progress({progress.done, progress.total, progress.name});
    });
  }
  if (settings().plan || (settings().verbose && !plan_.toOutput)) {
    plan_.options.setPlanOnly(settings().plan).setChangeHandler([this](const auto& change) {
      showChange(change);
    });
  }
}

TransferJob::~TransferJob() {
  if (transfer_ && !told_) {
    try {
      tellUnfinished(transfer_->report());
    } catch (const std::bad_alloc&) {
      // The lack of memory may be why the transfer ends: that is reported.
    }
  }
}

void TransferJob::tellUnfinished(const runel::TransferReport& done) {
  if (done.error()) {
    report().warn(done.error()->text());
  }
  tell(done);
}

void TransferJob::start() {
  if (plan_.way == Way::pull) {
    startPull();
  } else if (!plan_.input || settings().dryRun) {
    startPush();
  } else {
    // Standard input has no name that it could get in a directory.
    const std::string target = remote(plan_.target);
    ask(runel::Request({"stat", target}), [this, target](const runel::Reply& reply) {
      const auto there = reply.ok() ? runel::parseStat(reply.output()) : std::nullopt;
      if (there && there->isDirectory()) {
        fail(Error(Fault::task, target + ": " + runel::systemText(EISDIR),
                   "standard input needs the name of a file", EISDIR));
      } else {
        startPush();
      }
    });
  }
}

void TransferJob::startPush() {
  const auto start =
      plan_.way == Way::sync ? runel::AsyncTransfer::sync : runel::AsyncTransfer::push;
  transfer_ = start(device(), *plan_.files, remote(plan_.target), plan_.options,
                    [this](const runel::TransferReport& report) { end(report); });
}

void TransferJob::startPull() {
  const bool patterns = std::any_of(plan_.sources.begin(), plan_.sources.end(), isPattern);
  expander_.emplace([this](const runel::Request& request,
                           runel::ReplyHandler handler) { ask(request, std::move(handler)); },
                    settings().directory);
  if (settings().dryRun && patterns) {
    expander_->askFirst(plan_.sources);
  } else {
    expander_->expand(plan_.sources, [this](PathExpander::Expanded expanded) {
      takeSources(std::move(expanded));
    });
  }
}

void TransferJob::takeSources(PathExpander::Expanded expanded) {
  failures_ = std::move(expanded.failures);
  if (expanded.lost) {
    fail(expanded.lost->error());
  } else if (expanded.paths.empty()) {
    tellFailures(1);
    finish({kExitTaskFailed, failures_.front()});
  } else if (plan_.toOutput && expanded.paths.size() > 1) {
    fail(Error(Fault::local, plan_.sources.front() + ": matches " +
                                 countText(expanded.paths.size(), "file") +
                                 ", and standard output takes one"));
  } else if (const auto twins = sameNames(expanded)) {
    fail(*twins);
  } else {
    plan_.options.setIntoDirectory(expanded.matched && !plan_.toOutput);
    pull(expanded.paths);  // `expanded` may be gone afterwards
  }
}

void TransferJob::pull(const std::vector<std::string>& sources) {
  std::string target = plan_.target;
  if (const auto error = placePull(sources, target)) {
    fail(*error);
    return;
  }
  transfer_ =
      runel::AsyncTransfer::pull(device(), sources, target, plan_.options,
                                 [this](const runel::TransferReport& report) { end(report); });
}

// With several devices, each has a separate directory. Standard output gets a complete file or
// nothing.
std::optional<Error> TransferJob::placePull(const std::vector<std::string>& sources,
                                            std::string& target) {
  const bool creates = !settings().dryRun && !settings().plan;
  if (plan_.toOutput) {
    if (!creates) {
      return std::nullopt;
    }
    outputPath_ = sources.front();
    const auto file = TemporaryFile::create(outputName(outputPath_));
    if (!file) {
      return file.error();
    }
    output_ = *file;
    target = output_->path();
    plan_.options.setResume(false);
  } else if (settings().targets.size() > 1) {
    if (auto error = creates ? makeOuterDirectory(target) : std::nullopt) {
      return error;
    }
    plan_.options.setSubdirectory(directoryName(device().address().name()));
  }
  return std::nullopt;
}

std::optional<Error> TransferJob::writeOutput() {
  // The mode is that of the file on the device. It may forbid reading.
  (void)fchmodat(AT_FDCWD, output_->path().c_str(), kOutputMode, AT_SYMLINK_NOFOLLOW);
  const zell::UniqueFd file(open(output_->path().c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  const std::string path = output_->path();
  output_.reset();  // at once: when the reader has left, the process ends where it writes
  std::string part(kOutputPart, '\0');
  std::string content;  // for JSON
  ssize_t got = read(file.get(), part.data(), part.size());
  while (got > 0 || (got < 0 && errno == EINTR)) {
    const std::string_view bytes(part.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    report().bytes(bytes);
    content.append(report().json() ? bytes : std::string_view());
    got = read(file.get(), part.data(), part.size());
  }
  if (got < 0) {
    return localError(path, errno);
  }
  report().entry([&] {
    Json object{{"entry", "file"}};
    putBytes(object, "path", outputPath_);
    moveBytes(object, "content", std::move(content));
    return object;
  });
  return std::nullopt;
}

void TransferJob::showChange(const runel::TransferChange& change) {
  report().line(changeLine(change, report().style()));
  report().entry([&change] { return changeObject(change); });
}

std::optional<runel::Request> TransferJob::cleanUp() const {
  return transfer_ ? transfer_->cleanUp() : std::nullopt;
}

void TransferJob::tell(const runel::TransferReport& done) {
  told_ = true;
  for (const std::string& warning : done.warnings()) {
    report().warn(warning);
  }
  for (const std::string& note : done.notes()) {
    report().noteAtEnd(note);
  }
  Json& result = report().result();
  if (done.resumedAt()) {
    result["resumed_at"] = *done.resumedAt();
  }
  if (!done.complete()) {
    return;
  }
  if (plan_.way == Way::sync) {
    result["removed"] = done.removed();
  }
  result["files"] = done.files();
  result["bytes"] = done.bytes();
  if (done.sentBytes() != done.bytes()) {
    result["sent_bytes"] = done.sentBytes();
  }
  if (done.kept() != 0) {
    result["kept"] = done.kept();
  }
  if (settings().plan) {
    result["dry_run"] = true;
  }
  if (!report().style().quiet) {
    tellAmount(done);
  }
}

void TransferJob::tellAmount(const runel::TransferReport& done) {
  const std::string amount = countText(done.files(), "file") + ", " + sizeText(done.bytes());
  if (settings().plan) {
    const bool removes = plan_.way == Way::sync && plan_.options.removes();
    report().line("dry run: " + amount + " to transfer" +
                  (removes ? "; " + countText(done.removed(), "removal") : ""));
    return;
  }
  const bool packed = done.sentBytes() != done.bytes();
  const std::string kept = done.kept() == 0 ? "" : ", " + sizeText(done.kept()) + " kept";
  const std::string sent =
      amount + (packed ? ", compressed to " + sizeText(done.sentBytes()) : "") + kept;
  if (plan_.way == Way::sync) {
    report().line("sent " + sent + "; removed " + std::to_string(done.removed()));
  } else if (report().style().outTerminal && !plan_.toOutput) {
    report().line(sent);
  }
}

void TransferJob::end(const runel::TransferReport& done) {
  tell(done);
  if (!done.complete()) {
    tellFailures(0);
    fail(*done.error());
  } else if (done.error()) {
    tellFailures(0);
    finish({kExitTaskFailed, *done.error()});
  } else if (const auto error = output_ && done.files() > 0 ? writeOutput() : std::nullopt) {
    fail(*error);
  } else if (!failures_.empty()) {
    tellFailures(1);
    finish({kExitTaskFailed, failures_.front()});
  } else if (done.partial()) {
    finish({kExitTaskFailed, std::nullopt, "incomplete"});
  } else {
    succeed();
  }
}

// The failures of patterns from @p first on, as warnings.
void TransferJob::tellFailures(std::size_t first) {
  for (std::size_t i = first; i < failures_.size(); ++i) {
    report().warn(failures_[i].what);
  }
}

// The amounts are known, but the requests depend on the files on the device.
std::string TransferJob::sentLater() const {
  const std::string sums = plan_.options.checksum() ? "; sha256sum" : "";
  if (plan_.way == Way::pull) {
    const bool patterns = std::any_of(plan_.sources.begin(), plan_.sources.end(), isPattern);
    return (patterns ? PathExpander::laterText() : "") + "stat for each further path; " +
           (plan_.options.recursive() ? "walktree for directories, and stat for their entries; "
                                      : "") +
           "read for each file, dd in pieces for large ones" + sums;
  }
  const std::size_t directories = plan_.files->directories();
  return std::string(plan_.way == Way::sync
                         ? "walktree of the remote directory; for the differences among "
                         : "for ") +
         countText(plan_.files->files(), "file") + " (" + sizeText(plan_.files->bytes()) + "), " +
         std::to_string(directories) + (directories == 1 ? " directory" : " directories") +
         " and " + countText(plan_.files->links(), "link") +
         ": fileexists and lstat of the targets; mkdir and ln; write (in pieces, or as an archive "
         "for tar) and rename; chmod and touch" +
         sums + (plan_.options.removes() ? "; rm of files that are missing here" : "");
}

}  // namespace runelctl
