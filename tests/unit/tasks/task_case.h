// SPDX-License-Identifier: Apache-2.0
// One byte-count connection on a fake device. Tests pass requests as records.
#ifndef TESTS_UNIT_TASKS_TASK_CASE_H_
#define TESTS_UNIT_TASKS_TASK_CASE_H_

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "connections/byte_count_slave.h"
#include "fakes/system/fake_system.h"
#include "fakes/zell/fake_zell.h"
#include "support/log_capture.h"
#include "support/socket_pair.h"
#include "support/task_wire.h"

namespace zell::test {

/// Resets the device. A base class, so that this happens before the connection is constructed.
class CleanDevice {
 protected:
  CleanDevice() {
    FakeSystem::instance().reset();
    device.reset();
  }

  FakeDevice& device = FakeDevice::instance();
};

class TaskCase : public ::testing::Test, protected CleanDevice {
 protected:
  /// The reply, or null.
  std::unique_ptr<SlaveTask> answerTo(const std::vector<std::string>& args, int execParam = 0) {
    const SlaveTask task(args, execParam, "", SlaveStatus::success, WatchProcessState_t::none, 0, 0,
                         0);
    return std::unique_ptr<SlaveTask>(slave.dispatchTask(task));
  }

  /// The reply's record, or "none".
  std::string run(const std::vector<std::string>& args, int execParam = 0) {
    const std::unique_ptr<SlaveTask> answer = answerTo(args, execParam);
    if (answer == nullptr) {
      return "none";
    }
    std::ostringstream text;
    answer->serialize(text);
    return text.str();
  }

  /// The calls of the connection's proxy.
  static const std::vector<std::string>& asked() { return FakeProxy::newest().calls; }

  static std::string ownPrefix() { return "(" + std::to_string(getpid()) + ") "; }

  LogCapture log;
  SocketPair sockets = SocketPair::local();
  ByteCountSlave slave{sockets.near()};
};

}  // namespace zell::test

#endif  // TESTS_UNIT_TASKS_TASK_CASE_H_
