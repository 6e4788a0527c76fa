// SPDX-License-Identifier: Apache-2.0
#ifndef ZELL_SLAVE_PROXY_LOCAL_H_
#define ZELL_SLAVE_PROXY_LOCAL_H_

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <zell/slave_proxy.h>

namespace zell {

/// The executor for the device that this process runs on.
class SlaveProxyLocal : public SlaveProxy {
 public:
  SlaveProxyLocal();
  ~SlaveProxyLocal() override;

  bool kill() override;
  bool wait() override;
  std::string hostId() override;
  DeviceType_t deviceType() override;
  bool fileExists(const std::string& path) override;
  bool access(const std::string& path, unsigned mode) override;
  bool stat(const std::string& path, struct stat& st) override;
  bool lstat(const std::string& path, struct stat& st) override;
  bool unlink(const std::string& path) override;
  bool chmodx(const std::string& path) override;
  std::string realPath(const std::string& path) override;
  bool rename(const std::string& from, const std::string& to) override;
  bool readDir(const std::string& path, std::vector<std::string>& entries) override;
  bool readFile(const std::string& path, std::istringstream& content) override;
  bool writeFile(const std::string& path, const std::ostringstream& data) override;
  bool appendFile(const std::string& path, const std::ostringstream& data) override;
  bool processRunning(const std::string& name) override;
  bool reboot() override;
  FileTreeWalker* walkTree(const std::string& path) override;
  bool freeBlocks(const std::string& path, std::uint64_t& blocks) override;
  bool changeLeds(bool first, bool second) override;
  bool readFile(const std::string& path, std::string& content) override;
  bool writeFile(const std::string& path, std::string_view data) override;
  bool appendFile(const std::string& path, std::string_view data) override;

 private:
  std::unique_ptr<FileTreeWalker> tree_;
};

}  // namespace zell

#endif  // ZELL_SLAVE_PROXY_LOCAL_H_
