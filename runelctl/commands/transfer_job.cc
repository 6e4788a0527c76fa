// SPDX-License-Identifier: Apache-2.0
#include "commands/transfer_job.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <sys/stat.h>

#include "output/text.h"

namespace runelctl {
namespace {

using Way = TransferPlan::Way;

// A local directory name for a device name.
std::string directoryName(const std::string& device) {
  std::string name = device;
  std::replace(name.begin(), name.end(), '/', '_');
  return name == "." || name == ".." ? "_" : name;
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
  plan_.options.setProgress([this](const runel::Progress& progress) {
    report().progress({progress.done, progress.total, progress.name});
  });
}

TransferJob::~TransferJob() {
  if (transfer_ && !told_) {
    const runel::TransferReport done = transfer_->report();
    if (done.error()) {
      report().warn(done.error()->text());
    }
    tell(done);
  }
}

void TransferJob::start() {
  const auto done = [this](const runel::TransferReport& report) { end(report); };
  if (plan_.way == Way::pull) {
    startPull(done);
  } else {
    const auto start =
        plan_.way == Way::sync ? runel::AsyncTransfer::sync : runel::AsyncTransfer::push;
    transfer_ = start(device(), *plan_.files, remote(plan_.target), plan_.options, done);
  }
}

// With several devices, each has a separate directory.
void TransferJob::startPull(const runel::AsyncTransfer::Done& done) {
  std::vector<std::string> sources;
  for (const std::string& source : plan_.sources) {
    sources.push_back(remote(source));
  }
  if (settings().targets.size() > 1) {
    const auto error = settings().dryRun ? std::nullopt : makeOuterDirectory(plan_.target);
    if (error) {
      fail(*error);
      return;
    }
    plan_.options.setSubdirectory(directoryName(device().address().name()));
  }
  transfer_ = runel::AsyncTransfer::pull(device(), sources, plan_.target, plan_.options, done);
}

std::optional<runel::Request> TransferJob::cleanUp() const {
  return transfer_ ? transfer_->cleanUp() : std::nullopt;
}

void TransferJob::tell(const runel::TransferReport& done) {
  told_ = true;
  for (const std::string& warning : done.warnings()) {
    report().warn(warning);
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
  if (report().style().outTerminal && !report().style().quiet) {
    report().line(countText(done.files(), "file") + ", " + sizeText(done.bytes()));
  }
}

void TransferJob::end(const runel::TransferReport& done) {
  tell(done);
  if (!done.complete()) {
    fail(*done.error());
  } else if (done.error()) {
    finish({kExitTaskFailed, *done.error()});
  } else if (done.partial()) {
    finish({kExitTaskFailed, std::nullopt, "incomplete"});
  } else {
    succeed();
  }
}

// The amounts are known, but the requests depend on the files on the device.
std::string TransferJob::sentLater() const {
  const std::string sums = plan_.options.checksum() ? "; sha256sum" : "";
  if (plan_.way == Way::pull) {
    return std::string("stat for each further path; ") +
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
