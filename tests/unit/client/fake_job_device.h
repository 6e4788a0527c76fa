// SPDX-License-Identifier: Apache-2.0
// A device with jobs, on the loop of the test: its files are in memory, its texts are not run.
#ifndef TESTS_UNIT_CLIENT_FAKE_JOB_DEVICE_H_
#define TESTS_UNIT_CLIENT_FAKE_JOB_DEVICE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <runel/async_device.h>

#include "base/unique_fd.h"
#include "client/jobs/job_requests.h"

namespace runel {

/// Listens on loopback. Starts jobs, stores what is appended, and answers the questions of a
/// follower. Can cut the connection at any request.
class FakeJobDevice {
 public:
  explicit FakeJobDevice(Loop& loop);
  ~FakeJobDevice();
  FakeJobDevice(const FakeJobDevice&) = delete;
  FakeJobDevice& operator=(const FakeJobDevice&) = delete;

  AsyncDevice& client() { return client_; }
  [[nodiscard]] JobPlace place() const { return {"/jobs", "j"}; }

  /// Makes the job run, with segments of @p segment bytes.
  void run(std::size_t segment = 8);
  /// Adds output, in complete segments and a rest.
  void write(const std::string& stream, const std::string& bytes);
  /// Ends the program with this content of "status".
  void end(const std::string& status = "0 0 0 0 5");

  std::map<std::string, std::string> files;  ///< by name in the directory of the job
  bool exists = false;                       ///< the directory of the job
  bool alive = false;                        ///< the wrapper
  std::string boot = "b";
  int starts = 0;                     ///< how often the program was started
  std::vector<std::string> signals;   ///< that were sent to the program
  std::vector<std::string> requests;  ///< tasks and last arguments, such as "stat out.0"
  /// Cuts the connection at this request, counted from 0: executes it, but does not answer.
  std::size_t cutAt = SIZE_MAX;
  bool executeCut = true;  ///< false: does not execute it either
  /// Called before each request is executed.
  std::function<void(const std::string& request)> before;
  /// The replies to requests that begin so, as payloads, instead of the right ones.
  std::map<std::string, std::string> garbage;

 private:
  void accept();
  void read();
  void hangUp();
  [[nodiscard]] std::string execute(const std::vector<std::string>& words);
  [[nodiscard]] std::string runScript(const std::vector<std::string>& words);
  [[nodiscard]] std::string start(const std::string& mode, const std::string& token);
  [[nodiscard]] std::string show() const;
  [[nodiscard]] std::string content(const std::string& path) const;

  Loop& loop_;
  zell::UniqueFd listener_;
  zell::UniqueFd socket_;
  std::string received_;
  std::size_t segment_ = 8;
  AsyncDevice client_;
};

}  // namespace runel

#endif  // TESTS_UNIT_CLIENT_FAKE_JOB_DEVICE_H_
