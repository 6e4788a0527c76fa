// SPDX-License-Identifier: Apache-2.0
#include <zell/slave_proxy_local.h>

#include <algorithm>
#include <cerrno>

#include <zell/file_tree_walker.h>

#include "fakes/zell/fake_program_runner.h"

namespace zell {
namespace {

test::FakeDevice& device() {
  return test::FakeDevice::instance();
}

// Records a call of the proxy that owns @p programs.
void record(ProgramRunner& programs, const std::string& call) {
  programs.state().fake.record(call);
}

bool exists(const std::string& path) {
  return device().files.count(path) + device().stats.count(path) +
             device().directories.count(path) >
         0;
}

// The error of the operation @p name on @p path; ENOENT if the path is missing.
int errorOn(const std::string& name, const std::string& path) {
  return test::FakeDevice::errorOf(name, exists(path) ? 0 : ENOENT);
}

void fill(const std::string& path, struct stat& st) {
  const auto found = device().stats.find(path);
  if (found != device().stats.end()) {
    st = found->second;
    return;
  }
  st = {};
  const bool directory = device().directories.count(path) > 0;
  st.st_mode = directory ? S_IFDIR | 0755 : S_IFREG | 0644;
  st.st_nlink = 1;
  st.st_size = directory ? 0 : static_cast<off_t>(device().files[path].size());
}

}  // namespace

SlaveProxyLocal::SlaveProxyLocal() = default;
SlaveProxyLocal::~SlaveProxyLocal() = default;

std::string SlaveProxyLocal::hostId() {
  record(programs(), "hostId");
  (void)finish(test::FakeDevice::errorOf("hostId"));
  return device().hostId;
}

DeviceType_t SlaveProxyLocal::deviceType() {
  record(programs(), "deviceType");
  (void)finish(test::FakeDevice::errorOf("deviceType"));
  return device().deviceType;
}

bool SlaveProxyLocal::fileExists(const std::string& path) {
  record(programs(), "fileExists " + path);
  return finish(errorOn("fileExists", path));
}

bool SlaveProxyLocal::access(const std::string& path, unsigned mode) {
  record(programs(), "access " + path + " " + std::to_string(mode));
  return finish(errorOn("access", path));
}

bool SlaveProxyLocal::stat(const std::string& path, struct stat& st) {
  record(programs(), "stat " + path);
  const int error = errorOn("stat", path);
  if (error == 0) {
    fill(path, st);
  }
  return finish(error);
}

bool SlaveProxyLocal::lstat(const std::string& path, struct stat& st) {
  record(programs(), "lstat " + path);
  const int error = errorOn("lstat", path);
  if (error == 0) {
    fill(path, st);
  }
  return finish(error);
}

bool SlaveProxyLocal::unlink(const std::string& path) {
  record(programs(), "unlink " + path);
  const int error = errorOn("unlink", path);
  if (error == 0) {
    device().files.erase(path);
  }
  return finish(error);
}

bool SlaveProxyLocal::chmodx(const std::string& path) {
  record(programs(), "chmodx " + path);
  return finish(errorOn("chmodx", path));
}

std::string SlaveProxyLocal::realPath(const std::string& path) {
  record(programs(), "realPath " + path);
  const auto found = device().realPaths.find(path);
  const bool known = found != device().realPaths.end();
  const int error = test::FakeDevice::errorOf("realPath", known || exists(path) ? 0 : ENOENT);
  (void)finish(error);
  return error != 0 ? std::string() : known ? found->second : path;
}

bool SlaveProxyLocal::rename(const std::string& from, const std::string& to) {
  record(programs(), "rename " + from + " " + to);
  const int error = errorOn("rename", from);
  if (error == 0) {
    const std::string content = device().files[from];
    device().files.erase(from);
    device().files[to] = content;
  }
  return finish(error);
}

bool SlaveProxyLocal::readDir(const std::string& path, std::vector<std::string>& entries) {
  record(programs(), "readDir " + path);
  const auto found = device().directories.find(path);
  const int error =
      test::FakeDevice::errorOf("readDir", found == device().directories.end() ? ENOENT : 0);
  if (error == 0 && found != device().directories.end()) {
    std::vector<std::string> names = found->second;
    std::sort(names.begin(), names.end());
    entries.insert(entries.end(), names.begin(), names.end());
  }
  return finish(error);
}

bool SlaveProxyLocal::processRunning(const std::string& name) {
  record(programs(), "processRunning " + name);
  const auto& names = device().processes;
  const bool runs = std::find(names.begin(), names.end(), name) != names.end();
  return finish(test::FakeDevice::errorOf("processRunning", runs ? 0 : ESRCH));
}

bool SlaveProxyLocal::reboot() {
  record(programs(), "reboot");
  return finish(test::FakeDevice::errorOf("reboot"));
}

FileTreeWalker* SlaveProxyLocal::walkTree(const std::string& path) {
  record(programs(), "walkTree " + path);
  const int error = errorOn("walkTree", path);
  tree_.reset(error == ENOENT ? nullptr : new FileTreeWalker(device().tree));
  (void)finish(error);
  return tree_.get();
}

bool SlaveProxyLocal::freeBlocks(const std::string& path, std::uint64_t& blocks) {
  record(programs(), "freeBlocks " + path);
  const int error = test::FakeDevice::errorOf("freeBlocks");
  if (error == 0) {
    blocks = device().freeBlocks;
  }
  return finish(error);
}

bool SlaveProxyLocal::readFile(const std::string& path, std::string& content) {
  record(programs(), "readFile " + path);
  const int error = errorOn("readFile", path);
  if (error == 0) {
    content = device().files[path];
  }
  return finish(error);
}

bool SlaveProxyLocal::writeFile(const std::string& path, std::string_view data) {
  record(programs(), "writeFile " + path + " " + std::string(data));
  const int error = test::FakeDevice::errorOf("writeFile");
  if (error == 0) {
    device().files[path] = data;
  }
  return finish(error);
}

bool SlaveProxyLocal::appendFile(const std::string& path, std::string_view data) {
  record(programs(), "appendFile " + path + " " + std::string(data));
  const int error = test::FakeDevice::errorOf("appendFile");
  if (error == 0) {
    device().files[path] += data;
  }
  return finish(error);
}

}  // namespace zell
