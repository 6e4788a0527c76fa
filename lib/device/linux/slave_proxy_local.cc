// SPDX-License-Identifier: Apache-2.0
#include <zell/slave_proxy_local.h>

#include <cerrno>
#include <cstdlib>
#include <utility>

#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <zell/file_tree_walker.h>
#include <zell/slave_task.h>

#include "base/file_mode.h"
#include "base/system.h"
#include "device/linux/directory_names.h"
#include "device/linux/file_io.h"
#include "device/linux/host_id.h"
#include "device/linux/paths.h"
#include "device/linux/process_list.h"
#include "device/linux/tree_walk.h"
#include "protocol/protocol.h"

namespace zell {
namespace {

constexpr mode_t kExecuteForAll = S_IXUSR | S_IXGRP | S_IXOTH;

int addExecutePermission(const char* path) {
  struct stat st {};
  return ::stat(path, &st) == 0 ? ::chmod(path, (st.st_mode & kPermissionBits) | kExecuteForAll)
                                : -1;
}

}  // namespace

SlaveProxyLocal::SlaveProxyLocal() = default;
SlaveProxyLocal::~SlaveProxyLocal() = default;

std::string SlaveProxyLocal::hostId() {
  (void)finish(0);
  return readHostId();
}

DeviceType_t SlaveProxyLocal::deviceType() {
  (void)finish(0);
  return findDeviceType();
}

bool SlaveProxyLocal::fileExists(const std::string& path) {
  struct stat st {};
  return finish(errorOf(path, [&](const char* p) { return ::stat(p, &st); }));
}

bool SlaveProxyLocal::access(const std::string& path, unsigned mode) {
  return finish(errorOf(path, [&](const char* p) { return ::access(p, static_cast<int>(mode)); }));
}

bool SlaveProxyLocal::stat(const std::string& path, struct stat& st) {
  return finish(errorOf(path, [&](const char* p) { return ::stat(p, &st); }));
}

bool SlaveProxyLocal::lstat(const std::string& path, struct stat& st) {
  return finish(errorOf(path, [&](const char* p) { return ::lstat(p, &st); }));
}

bool SlaveProxyLocal::unlink(const std::string& path) {
  return finish(errorOf(path, ::unlink));
}

bool SlaveProxyLocal::chmodx(const std::string& path) {
  return finish(errorOf(path, addExecutePermission));
}

std::string SlaveProxyLocal::realPath(const std::string& path) {
  std::string canonical;
  const int error = errorOf(path, [&](const char* p) {
    const std::unique_ptr<char, decltype(&std::free)> found(::realpath(p, nullptr), std::free);
    if (found != nullptr) {
      canonical = found.get();
    }
    return found != nullptr ? 0 : -1;
  });
  (void)finish(error);
  return canonical;
}

bool SlaveProxyLocal::rename(const std::string& from, const std::string& to) {
  const int bad = hasZeroByte(to) ? EINVAL : 0;
  return finish(bad != 0 ? bad
                         : errorOf(from, [&](const char* p) { return ::rename(p, to.c_str()); }));
}

bool SlaveProxyLocal::readDir(const std::string& path, std::vector<std::string>& entries) {
  return finish(readNames(path, entries));
}

bool SlaveProxyLocal::processRunning(const std::string& name) {
  return finish(findProcess(name));
}

bool SlaveProxyLocal::reboot() {
  sys::sync();
  return finish(sys::reboot(RB_AUTOBOOT) == 0 ? 0 : errno);
}

FileTreeWalker* SlaveProxyLocal::walkTree(const std::string& path) {
  tree_.reset();
  TreeWalk walk;
  if (walk.run(path)) {
    tree_ = std::make_unique<FileTreeWalker>(std::move(walk.lines()));
  }
  (void)finish(walk.error());
  return tree_.get();
}

bool SlaveProxyLocal::freeBlocks(const std::string& path, std::uint64_t& blocks) {
  struct statvfs fs {};
  const int error = errorOf(path, [&](const char* p) { return ::statvfs(p, &fs); });
  if (error == 0) {
    blocks = fs.f_bavail;
  }
  return finish(error);
}

bool SlaveProxyLocal::readFile(const std::string& path, std::string& content) {
  std::string text;
  const int error = readWholeFile(path, kMaxReplyText, text);
  if (error == 0) {
    content = std::move(text);
  }
  return finish(error);
}

bool SlaveProxyLocal::writeFile(const std::string& path, std::string_view data) {
  return finish(replaceFile(path, data));
}

bool SlaveProxyLocal::appendFile(const std::string& path, std::string_view data) {
  return finish(appendToFile(path, data));
}

}  // namespace zell
