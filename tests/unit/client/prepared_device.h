// SPDX-License-Identifier: Apache-2.0
// A device at the other end of a socket pair, with prepared answers.
#ifndef TESTS_UNIT_CLIENT_PREPARED_DEVICE_H_
#define TESTS_UNIT_CLIENT_PREPARED_DEVICE_H_

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <runel/async_device.h>

#include "base/unique_fd.h"

namespace runel {

/// Reads requests and answers them in order, in the loop of the device under test. Without a
/// prepared answer, tasks that look at files fail with ENOENT and all others succeed.
class PreparedDevice {
 public:
  explicit PreparedDevice(Loop& loop);
  ~PreparedDevice();
  PreparedDevice(const PreparedDevice&) = delete;
  PreparedDevice& operator=(const PreparedDevice&) = delete;

  AsyncDevice& client() { return client_; }

  /// All requests so far: the words, separated by spaces. A word of more than 80 bytes is shown as
  /// its size.
  [[nodiscard]] const std::vector<std::string>& requests() const { return requests_; }
  /// All words of more than 80 bytes so far.
  [[nodiscard]] const std::vector<std::string>& longWords() const { return longWords_; }
  /// The number of requests that begin with @p words.
  [[nodiscard]] std::size_t count(const std::string& words) const;

  /// Answers requests that begin with @p words by @p text, which succeed.
  void succeed(const std::string& words, const std::string& text);
  /// The same for the next such request only.
  void succeedOnce(const std::string& words, const std::string& text);
  /// Answers requests that begin with @p words with the errno value @p number.
  void fail(const std::string& words, int number);
  /// Closes the connection instead of answering the first request that begins with @p words.
  void hangUpAt(const std::string& words) { hangUpAt_ = words; }

  /// Calls @p call before it answers requests that begin with @p words.
  void onRequest(const std::string& words, std::function<void()> call);

  /// A stat record with this type and size.
  [[nodiscard]] static std::string stat(const std::string& mode, std::size_t size);

 private:
  void read();
  void answer(const std::string& payload);
  [[nodiscard]] std::string answerTo(const std::string& words);

  Loop& loop_;
  zell::UniqueFd socket_;
  AsyncDevice client_;
  std::string received_;
  std::vector<std::string> requests_;
  std::vector<std::string> longWords_;
  std::map<std::string, std::string> answers_;
  std::map<std::string, std::string> once_;
  std::string hangUpAt_;
  std::string callAt_;
  std::function<void()> call_;
};

}  // namespace runel

#endif  // TESTS_UNIT_CLIENT_PREPARED_DEVICE_H_
