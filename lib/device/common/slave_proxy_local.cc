// SPDX-License-Identifier: Apache-2.0
// The operations of the local executor that need no call of the system.
#include <zell/slave_proxy_local.h>

#include "base/stream_view.h"
#include "device/common/program_runner.h"

namespace zell {

bool SlaveProxyLocal::kill() {
  setResultStatus(programs().kill());
  return resultStatus().status == SlaveStatus::success;
}

bool SlaveProxyLocal::wait() {
  setResultStatus(programs().wait());
  return resultStatus().status == SlaveStatus::success;
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
  return writeFile(path, viewOf(data));
}

bool SlaveProxyLocal::appendFile(const std::string& path, const std::ostringstream& data) {
  return appendFile(path, viewOf(data));
}

bool SlaveProxyLocal::changeLeds(bool first, bool second) {
  endBlink();
  return finish(driveLeds(first, second));
}

}  // namespace zell
