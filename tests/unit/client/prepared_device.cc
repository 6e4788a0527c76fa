// SPDX-License-Identifier: Apache-2.0
#include "unit/client/prepared_device.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <zell/slave_task.h>

#include "support/task_wire.h"

namespace runel {
namespace {

constexpr std::size_t kLongestWord = 80;

bool beginsWith(const std::string& text, const std::string& words) {
  return text.compare(0, words.size(), words) == 0;
}

std::string shown(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    text += text.empty() ? "" : " ";
    text += word.size() > kLongestWord ? "(" + std::to_string(word.size()) + " bytes)" : word;
  }
  return text;
}

std::string failedReply(int number) {
  return zell::test::reply("", "1 0 1 " + std::to_string(number) + " 0");
}

int makePair(zell::UniqueFd& far) {
  int ends[2] = {-1, -1};
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  far.reset(ends[1]);
  return ends[0];
}

}  // namespace

PreparedDevice::PreparedDevice(Loop& loop)
    : loop_(loop), client_(loop, makePair(socket_), "prepared") {
  EXPECT_TRUE(loop_.watch(socket_.get(), EPOLLIN, [this](std::uint32_t) { read(); }));
}

PreparedDevice::~PreparedDevice() {
  loop_.forget(socket_.get());
}

std::size_t PreparedDevice::count(const std::string& words) const {
  std::size_t count = 0;
  for (const std::string& request : requests_) {
    count += beginsWith(request, words) ? 1 : 0;
  }
  return count;
}

void PreparedDevice::succeed(const std::string& words, const std::string& text) {
  answers_[words] = zell::test::reply(text);
}

void PreparedDevice::succeedOnce(const std::string& words, const std::string& text) {
  once_[words] = zell::test::reply(text);
}

void PreparedDevice::fail(const std::string& words, int number) {
  answers_[words] = failedReply(number);
}

void PreparedDevice::onRequest(const std::string& words, std::function<void()> call) {
  callAt_ = words;
  call_ = std::move(call);
}

std::string PreparedDevice::stat(const std::string& mode, std::size_t size) {
  return "dev=1 ino=1 mode=" + mode + " nlink=1 uid=0 gid=0 rdev=0 size=" + std::to_string(size) +
         " blksize=4096 blocks=0 atime=0.000000000 mtime=5.000000000 ctime=0.000000000\n";
}

void PreparedDevice::read() {
  std::string part(65536, '\0');
  const ssize_t got = recv(socket_.get(), part.data(), part.size(), MSG_DONTWAIT);
  if (got <= 0) {
    loop_.forget(socket_.get());
    return;
  }
  received_.append(part, 0, static_cast<std::size_t>(got));
  for (std::size_t mark = received_.find('\x02'); mark != std::string::npos;
       mark = received_.find('\x02')) {
    const std::size_t size = std::stoul(received_.substr(1, mark - 1));
    if (received_.size() < mark + 1 + size || !socket_.valid()) {
      return;
    }
    const std::string payload = received_.substr(mark + 1, size);
    received_.erase(0, mark + 1 + size);
    answer(payload);
  }
}

void PreparedDevice::answer(const std::string& payload) {
  zell::SlaveTask request;
  ASSERT_TRUE(request.parse(payload));
  std::copy_if(request.args().begin(), request.args().end(), std::back_inserter(longWords_),
               [](const std::string& word) { return word.size() > kLongestWord; });
  const std::string words = shown(request.args());
  requests_.push_back(words);
  if (call_ && beginsWith(words, callAt_)) {
    call_();
  }
  if (!hangUpAt_.empty() && beginsWith(words, hangUpAt_)) {
    loop_.forget(socket_.get());
    socket_.reset();
    return;
  }
  const std::string answer = answerTo(words);
  EXPECT_EQ(send(socket_.get(), answer.data(), answer.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(answer.size()));
}

std::string PreparedDevice::answerTo(const std::string& words) {
  for (const auto& [beginning, prepared] : once_) {
    if (beginsWith(words, beginning)) {
      return once_.extract(beginning).mapped();
    }
  }
  const bool looks =
      beginsWith(words, "stat ") || beginsWith(words, "lstat ") || beginsWith(words, "fileexists ");
  std::string answer = looks ? failedReply(ENOENT) : zell::test::reply("");
  for (const auto& [beginning, prepared] : answers_) {
    answer = beginsWith(words, beginning) ? prepared : answer;
  }
  return answer;
}

}  // namespace runel
