// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/push/staging_directory.h"

#include <utility>

namespace runel {

StagingDirectory::StagingDirectory(TransferWork& work, std::string path)
    : work_(work), path_(std::move(path)) {}

// All steps are pipelined.
void StagingDirectory::unpack(std::string&& archive, const std::vector<std::string>& options,
                              std::function<void(bool done)> next) {
  if (!created_) {
    create([](bool) {});
  }
  const std::string file = path_ + "/archive";
  work_.ask(Request({"write", file}, std::move(archive)),
            [this](const Reply& reply) { written_ = reply.ok(); });
  std::vector<std::string> tar{"tar", "-x", "-p", "-f", file};
  tar.insert(tar.end(), options.begin(), options.end());
  work_.ask(Request::exec(tar, 0),
            [this, next = std::move(next)](const Reply& reply) { next(reply.ok() && written_); });
}

// Files that an earlier transfer left there are removed first.
void StagingDirectory::create(std::function<void(bool done)> next) {
  created_ = true;
  work_.leaves(removal());
  work_.tell(removal());
  work_.ask(Request::exec({"mkdir", "-m", "0700", "--", path_}, 0),
            [next = std::move(next)](const Reply& reply) { next(reply.ok()); });
}

void StagingDirectory::remove(Stage::Next next) {
  if (!created_) {
    next();
    return;
  }
  work_.ask(removal(), [this, next = std::move(next)](const Reply&) {
    work_.leaves(std::nullopt);
    next();
  });
}

Request StagingDirectory::removal() const {
  return Request::exec({"rm", "-r", "-f", "--", path_}, 0);
}

}  // namespace runel
