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

bool exists(const std::string& path) {
  return device().files.count(path) + device().stats.count(path) +
             device().directories.count(path) >
         0;
}

// The error of the operation @p name on @p path; ENOENT if the path is missing.
int errorOn(const std::string& name, const std::string& path) {
  return ProgramRunner::errorOf(name, exists(path) ? 0 : ENOENT);
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

bool SlaveProxyLocal::kill() {
  programs().record("kill");
  test::FakeProxy& fake = programs().fake;
  const int error = ProgramRunner::errorOf("kill", fake.background ? 0 : ESRCH);
  fake.background = fake.background && error != 0;
  setResultStatus(
      error != 0 ? test::failure(error)
                 : ResultStatus{SlaveStatus::success, WatchProcessState_t::signalled, -1, 0, 15});
  return error == 0;
}

bool SlaveProxyLocal::wait() {
  programs().record("wait");
  test::FakeProxy& fake = programs().fake;
  const int error = ProgramRunner::errorOf("wait", fake.background ? 0 : ECHILD);
  fake.background = fake.background && error != 0;
  setResultStatus(error != 0 ? test::failure(error) : test::FakeProgram().end);
  return error == 0;
}

std::string SlaveProxyLocal::hostId() {
  programs().record("hostId");
  (void)finish(ProgramRunner::errorOf("hostId"));
  return device().hostId;
}

DeviceType_t SlaveProxyLocal::deviceType() {
  programs().record("deviceType");
  (void)finish(ProgramRunner::errorOf("deviceType"));
  return device().deviceType;
}

bool SlaveProxyLocal::fileExists(const std::string& path) {
  programs().record("fileExists " + path);
  return finish(errorOn("fileExists", path));
}

bool SlaveProxyLocal::access(const std::string& path, unsigned mode) {
  programs().record("access " + path + " " + std::to_string(mode));
  return finish(errorOn("access", path));
}

bool SlaveProxyLocal::stat(const std::string& path, struct stat& st) {
  programs().record("stat " + path);
  const int error = errorOn("stat", path);
  if (error == 0) {
    fill(path, st);
  }
  return finish(error);
}

bool SlaveProxyLocal::lstat(const std::string& path, struct stat& st) {
  programs().record("lstat " + path);
  const int error = errorOn("lstat", path);
  if (error == 0) {
    fill(path, st);
  }
  return finish(error);
}

bool SlaveProxyLocal::unlink(const std::string& path) {
  programs().record("unlink " + path);
  const int error = errorOn("unlink", path);
  if (error == 0) {
    device().files.erase(path);
  }
  return finish(error);
}

bool SlaveProxyLocal::chmodx(const std::string& path) {
  programs().record("chmodx " + path);
  return finish(errorOn("chmodx", path));
}

std::string SlaveProxyLocal::realPath(const std::string& path) {
  programs().record("realPath " + path);
  const auto found = device().realPaths.find(path);
  const bool known = found != device().realPaths.end();
  const int error = ProgramRunner::errorOf("realPath", known || exists(path) ? 0 : ENOENT);
  (void)finish(error);
  return error != 0 ? std::string() : known ? found->second : path;
}

bool SlaveProxyLocal::rename(const std::string& from, const std::string& to) {
  programs().record("rename " + from + " " + to);
  const int error = errorOn("rename", from);
  if (error == 0) {
    const std::string content = device().files[from];
    device().files.erase(from);
    device().files[to] = content;
  }
  return finish(error);
}

bool SlaveProxyLocal::readDir(const std::string& path, std::vector<std::string>& entries) {
  programs().record("readDir " + path);
  const auto found = device().directories.find(path);
  const int error =
      ProgramRunner::errorOf("readDir", found == device().directories.end() ? ENOENT : 0);
  if (error == 0 && found != device().directories.end()) {
    std::vector<std::string> names = found->second;
    std::sort(names.begin(), names.end());
    entries.insert(entries.end(), names.begin(), names.end());
  }
  return finish(error);
}

bool SlaveProxyLocal::readFile(const std::string& path, std::istringstream& content) {
  std::string text;
  const bool done = readFile(path, text);
  if (done) {
    content.str(text);
  }
  return done;
}

bool SlaveProxyLocal::writeFile(const std::string& path, const std::ostringstream& data) {
  return writeFile(path, data.str());
}

bool SlaveProxyLocal::appendFile(const std::string& path, const std::ostringstream& data) {
  return appendFile(path, data.str());
}

bool SlaveProxyLocal::processRunning(const std::string& name) {
  programs().record("processRunning " + name);
  const auto& names = device().processes;
  const bool runs = std::find(names.begin(), names.end(), name) != names.end();
  return finish(ProgramRunner::errorOf("processRunning", runs ? 0 : ESRCH));
}

bool SlaveProxyLocal::reboot() {
  programs().record("reboot");
  return finish(ProgramRunner::errorOf("reboot"));
}

FileTreeWalker* SlaveProxyLocal::walkTree(const std::string& path) {
  programs().record("walkTree " + path);
  const int error = errorOn("walkTree", path);
  tree_.reset(error == ENOENT ? nullptr : new FileTreeWalker(device().tree));
  (void)finish(error);
  return tree_.get();
}

bool SlaveProxyLocal::freeBlocks(const std::string& path, std::uint64_t& blocks) {
  programs().record("freeBlocks " + path);
  const int error = ProgramRunner::errorOf("freeBlocks");
  if (error == 0) {
    blocks = device().freeBlocks;
  }
  return finish(error);
}

bool SlaveProxyLocal::changeLeds(bool first, bool second) {
  programs().record(std::string("changeLeds ") + (first ? "1 " : "0 ") + (second ? "1" : "0"));
  endBlink();
  const int error = ProgramRunner::errorOf("changeLeds");
  return finish(error != 0 ? error : driveLeds(first, second));
}

bool SlaveProxyLocal::readFile(const std::string& path, std::string& content) {
  programs().record("readFile " + path);
  const int error = errorOn("readFile", path);
  if (error == 0) {
    content = device().files[path];
  }
  return finish(error);
}

bool SlaveProxyLocal::writeFile(const std::string& path, std::string_view data) {
  programs().record("writeFile " + path + " " + std::string(data));
  const int error = ProgramRunner::errorOf("writeFile");
  if (error == 0) {
    device().files[path] = data;
  }
  return finish(error);
}

bool SlaveProxyLocal::appendFile(const std::string& path, std::string_view data) {
  programs().record("appendFile " + path + " " + std::string(data));
  const int error = ProgramRunner::errorOf("appendFile");
  if (error == 0) {
    device().files[path] += data;
  }
  return finish(error);
}

}  // namespace zell
