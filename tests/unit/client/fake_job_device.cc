// SPDX-License-Identifier: Apache-2.0
#include "unit/client/fake_job_device.h"

#include <algorithm>
#include <cerrno>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <zell/slave_task.h>

#include "client/core/paths.h"
#include "client/jobs/job_scripts.h"
#include "support/task_wire.h"

namespace runel {
namespace {

using zell::test::replyRecord;

constexpr char kProcess[] = "12 (sh) S 1 10 10 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 5000 0\n";

zell::UniqueFd jobListener() {
  zell::UniqueFd made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(bind(made.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(listen(made.get(), 8), 0);
  return made;
}

std::uint16_t jobPortOf(int listener) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  EXPECT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size), 0);
  return ntohs(address.sin_port);
}

std::string failedWith(int number) {
  return replyRecord("", "1 0 1 " + std::to_string(number) + " 0");
}

std::string exited(JobExit status, const std::string& text) {
  const int code = static_cast<int>(status);
  return replyRecord(text, (code == 0 ? "0 2 0 0 0" : "1 2 " + std::to_string(code) + " 0 0"));
}

std::string statOf(std::size_t size) {
  return "dev=1 ino=1 mode=0100600 nlink=1 uid=0 gid=0 rdev=0 size=" + std::to_string(size) +
         " blksize=4096 blocks=0 atime=0.000000000 mtime=5.000000000 ctime=0.000000000\n";
}

DeviceOptions quickOptions() {
  return DeviceOptions().setRetries(0, Milliseconds(1));
}

}  // namespace

FakeJobDevice::FakeJobDevice(Loop& loop)
    : loop_(loop),
      listener_(jobListener()),
      client_(loop, Address("127.0.0.1", jobPortOf(listener_.get())), quickOptions()) {
  EXPECT_TRUE(loop_.watch(listener_.get(), EPOLLIN, [this](std::uint32_t) { accept(); }));
}

FakeJobDevice::~FakeJobDevice() {
  hangUp();
  loop_.forget(listener_.get());
}

void FakeJobDevice::run(std::size_t segment) {
  segment_ = segment;
  exists = alive = true;
  files["started"] = boot + " 12 10 5000 13 14 0 64 " + std::to_string(segment) + " 5";
  files["out.0"];
  files["err.0"];
}

void FakeJobDevice::write(const std::string& stream, const std::string& bytes) {
  std::size_t last = 0;
  for (const auto& file : files) {
    last = std::max(last, parseSegmentName(file.first, stream).value_or(0));
  }
  for (const char byte : bytes) {
    last += files[stream + "." + std::to_string(last)].size() == segment_ ? 1 : 0;
    files[stream + "." + std::to_string(last)] += byte;
  }
}

void FakeJobDevice::end(const std::string& status) {
  files["status"] = status;
  alive = false;
}

void FakeJobDevice::accept() {
  hangUp();
  socket_.reset(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  EXPECT_TRUE(loop_.watch(socket_.get(), EPOLLIN, [this](std::uint32_t) { read(); }));
}

void FakeJobDevice::hangUp() {
  if (socket_.valid()) {
    loop_.forget(socket_.get());
    socket_.reset();
  }
  received_.clear();
}

void FakeJobDevice::read() {
  std::string part(65536, '\0');
  const ssize_t got = recv(socket_.get(), part.data(), part.size(), MSG_DONTWAIT);
  if (got <= 0) {
    hangUp();
    return;
  }
  received_.append(part, 0, static_cast<std::size_t>(got));
  for (std::size_t mark = received_.find('\x02'); mark != std::string::npos;
       mark = received_.find('\x02')) {
    const std::size_t size = std::stoul(received_.substr(1, mark - 1));
    if (received_.size() < mark + 1 + size) {
      return;
    }
    zell::SlaveTask request;
    ASSERT_TRUE(request.parse(received_.substr(mark + 1, size)));
    received_.erase(0, mark + 1 + size);
    const bool cut = requests.size() == cutAt;
    const std::string answer = cut && !executeCut ? "" : zell::test::frame(execute(request.args()));
    if (cut) {
      requests.resize(cutAt + 1);
      hangUp();
      return;
    }
    EXPECT_EQ(send(socket_.get(), answer.data(), answer.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(answer.size()));
  }
}

std::string FakeJobDevice::execute(const std::vector<std::string>& words) {
  const bool script = words[0] == "exec" && words[1] == "/bin/sh";
  const std::string path = words[0] == "append" ? words[1] : words.back();
  const std::string name = script ? words[3] == startScript()    ? "start " + words[5]
                                    : words[3] == showScript()   ? "show"
                                    : words[3] == signalScript() ? "signal " + words.back()
                                                                 : "remove"
                                  : words[0] + " " + baseName(path);
  requests.push_back(name);
  if (before) {
    before(name);
  }
  for (const auto& [beginning, payload] : garbage) {
    if (name.compare(0, beginning.size(), beginning) == 0) {
      return payload;
    }
  }
  if (script) {
    return runScript(words);
  }
  const std::string file = baseName(path);
  if (words[0] == "append") {
    files[file] += words[2];
    return replyRecord("");
  }
  if (path == "/proc/12/stat") {
    return alive ? replyRecord(kProcess) : failedWith(ENOENT);
  }
  if (words[0] == "readdir") {
    std::string list = "StringVec " + std::to_string(files.size()) + "\n";
    for (const auto& one : files) {
      list += std::to_string(one.first.size()) + ":" + one.first + "\n";
    }
    return replyRecord(list);
  }
  if (files.count(file) == 0) {
    return words[0] == "exec" ? replyRecord("", "1 2 1 0 0") : failedWith(ENOENT);
  }
  if (words[0] == "unlink") {
    files.erase(file);
    return replyRecord("");
  }
  if (words[0] == "stat") {
    return replyRecord(statOf(files[file].size()));
  }
  if (words[0] == "exec") {  // tail -c +N
    return exited(JobExit::done, files[file].substr(std::stoul(words[3].substr(1)) - 1));
  }
  return replyRecord(files[file]);
}

std::string FakeJobDevice::runScript(const std::vector<std::string>& words) {
  if (words[3] == startScript()) {
    return start(words[5], words[15]);
  }
  if (words[3] == showScript()) {
    return exited(JobExit::done, show());
  }
  if (words[3] == signalScript()) {
    if (!alive) {
      return exited(JobExit::notRunning, "does not run");
    }
    signals.push_back(words.back());
    return exited(JobExit::done, "sent\n");
  }
  const bool running = alive && files.count("status") == 0;
  exists = running;
  return exited(running ? JobExit::running : JobExit::done, "");
}

std::string FakeJobDevice::start(const std::string& mode, const std::string& token) {
  const bool first = mode == "run" ? files.count("started") == 0 : !exists;
  if (!first) {
    return exited(files["token"] == token ? JobExit::same : JobExit::exists, "/jobs/j: exists\n");
  }
  exists = true;
  files["token"] = token;
  if (mode == "claim") {
    files["in"];
  } else {
    ++starts;
    run(segment_);
  }
  return exited(JobExit::done, "started\n");
}

std::string FakeJobDevice::show() const {
  std::string text = "boot " + boot + "\n";
  if (!exists) {
    return text;
  }
  text += "job j\n";
  const auto add = [&](const char* name) {
    const auto file = files.find(name);
    text += file == files.end() ? "" : std::string(name) + " " + file->second + "\n";
  };
  add("started");
  text += alive ? "alive\n" : "";
  add("status");
  return text + "command true\n";
}

}  // namespace runel
