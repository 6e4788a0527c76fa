// SPDX-License-Identifier: Apache-2.0
// Unpacks archives on the device, in a hidden directory next to the targets.
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
  /// In the directory of the target @p path. Sends nothing yet.
  StagingDirectory(TransferWork& work, const std::string& path);

  [[nodiscard]] const std::string& path() const { return path_; }
  /// Writes @p archive and unpacks it by tar with @p options. Calls @p next with false if the
  /// device has not unpacked all of it. Creates the directory if necessary.
  void unpack(std::string&& archive, const std::vector<std::string>& options,
              std::function<void(bool done)> next);
  /// Removes the directory with all that is in it, if it was created.
  void remove(Stage::Next next);

 private:
  void create();
  [[nodiscard]] Request removal() const;

  TransferWork& work_;
  const std::string path_;
  bool created_ = false;
  bool written_ = false;  // the archive, completely
};

}  // namespace runel

#endif  // RUNEL_TRANSFER_PUSH_STAGING_DIRECTORY_H_
