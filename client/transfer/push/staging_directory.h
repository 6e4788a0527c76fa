// SPDX-License-Identifier: Apache-2.0
// A hidden directory on the device, next to the targets. Archives are unpacked in it. It is removed
// as a whole, in one request: late requests of a lost connection cannot create its files again.
#ifndef RUNEL_TRANSFER_PUSH_STAGING_DIRECTORY_H_
#define RUNEL_TRANSFER_PUSH_STAGING_DIRECTORY_H_

#include <functional>
#include <string>
#include <vector>

#include "client/transfer/stage.h"
#include "client/transfer/work.h"

namespace runel {

class StagingDirectory {
 public:
  /// Has @p path. Sends nothing yet.
  StagingDirectory(TransferWork& work, std::string path);

  [[nodiscard]] const std::string& path() const { return path_; }
  /// Creates the directory. Calls @p next with false if the device could not.
  void create(std::function<void(bool done)> next);
  /// Writes @p archive and unpacks it by tar with @p options. Calls @p next with false if the
  /// device has not unpacked all of it. Creates the directory if necessary.
  void unpack(std::string&& archive, const std::vector<std::string>& options,
              std::function<void(bool done)> next);
  /// Removes the directory with all that is in it, if it was created.
  void remove(Stage::Next next);
  /// The request that removes it.
  [[nodiscard]] Request removal() const;

 private:
  TransferWork& work_;
  const std::string path_;
  bool created_ = false;
  bool written_ = false;  // the archive, completely
};

}  // namespace runel

#endif  // RUNEL_TRANSFER_PUSH_STAGING_DIRECTORY_H_
