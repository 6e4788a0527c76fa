// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/local_batch.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <sys/resource.h>
#include <unistd.h>

#include "client/core/paths.h"
#include "client/transfer/hidden_paths.h"

namespace runel {
namespace {

using namespace std::chrono_literals;

// A batch waits for the disk once. An interrupted pull loses what is in it.
constexpr std::size_t kMostFiles = 256;
constexpr std::uint64_t kMostBytes = 16777216;
constexpr auto kLongest = 1s;

// So few files are synced one by one: to sync a file system writes what other programs have
// written, too.
constexpr std::size_t kFewFiles = 2;

// Files wait for their sync open, and pulls from many devices share the descriptors of the process.
std::size_t mostFiles() {
  constexpr rlim_t kShare = 64;
  rlimit limit{};
  return getrlimit(RLIMIT_NOFILE, &limit) != 0
             ? 1
             : static_cast<std::size_t>(std::min<rlim_t>(limit.rlim_cur / kShare, kMostFiles));
}

}  // namespace

LocalBatch::LocalBatch() : mostFiles_(mostFiles()) {}

void LocalBatch::write(const LocalPath& path, std::string_view content, std::uint32_t mode,
                       const Timestamp& mtime, Finished finished) {
  const std::string hidden = partPath(path.name);
  // The other file comes first: two files of one name, or one that has the hidden name of another.
  if (names_.count(path.name) + names_.count(hidden) != 0) {
    nameAll();
  }
  auto writer = std::make_unique<LocalWriter>();
  std::optional<Error> error = begin(*writer, path);
  error = error ? error : writer->add(content);
  error = error ? error : writer->setAttributes(mode, mtime);
  if (error) {
    finished(error);
    return;
  }
  begun_ = files_.empty() ? Clock::now() : begun_;
  bytes_ += content.size();
  names_.insert({path.name, hidden});
  files_.push_back({std::move(writer), std::move(finished)});
  if (isFull()) {
    nameAll();
  }
}

// Without free descriptors, closes those of the batch first.
std::optional<Error> LocalBatch::begin(LocalWriter& writer, const LocalPath& path) {
  std::optional<Error> error = beginHere(writer, path);
  if (error && (error->number() == EMFILE || error->number() == ENFILE) && !files_.empty()) {
    nameAll();
    error = beginHere(writer, path);
  }
  return error;
}

std::optional<Error> LocalBatch::beginHere(LocalWriter& writer, const LocalPath& path) {
  LocalWriter::SharedDirectory& directory = directories_[directoryOf(path.name)];
  std::optional<Error> error = writer.begin(path, false, directory);
  directory = writer.directory();
  return error;
}

bool LocalBatch::isFull() const {
  return files_.size() >= mostFiles_ || directories_.size() >= mostFiles_ || bytes_ >= kMostBytes ||
         Clock::now() - begun_ >= kLongest;
}

void LocalBatch::nameAll() {
  const bool synced = files_.size() > kFewFiles && syncFileSystems();
  for (File& file : std::exchange(files_, {})) {
    LocalWriter& writer = *file.writer;
    Renamed renamed{writer.directory(), writer.path().text};
    const std::optional<Error> error = synced ? writer.finishSynced() : writer.finish();
    if (synced && !error) {
      renamed_[writer.device()] = std::move(renamed);
    }
    file.finished(error);
  }
  directories_.clear();
  names_.clear();
  bytes_ = 0;
}

// Returns false on failure: then each file is synced, for only some of them may be affected.
bool LocalBatch::syncFileSystems() {
  std::vector<dev_t> synced;
  for (const File& file : files_) {
    const dev_t device = file.writer->device();
    if (std::find(synced.begin(), synced.end(), device) != synced.end()) {
      continue;
    }
    if (syncfs(file.writer->descriptor()) != 0) {
      return false;
    }
    synced.push_back(device);
    renamed_.erase(device);
  }
  return true;
}

std::optional<Error> LocalBatch::finish() {
  nameAll();
  std::optional<Error> error;
  for (const auto& [device, last] : std::exchange(renamed_, {})) {
    if (syncfs(last.directory->get()) != 0 && !error) {
      error = Error::local(last.text, errno);
    }
  }
  return error;
}

}  // namespace runel
