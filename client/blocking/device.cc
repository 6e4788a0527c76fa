// SPDX-License-Identifier: Apache-2.0
// Each call runs the event-driven engine until its reply has arrived.
#include <runel/device.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <deque>
#include <initializer_list>
#include <optional>
#include <string_view>
#include <utility>

#include "client/blocking/device_data.h"
#include "client/core/retry_pause.h"

namespace runel {
inline namespace v1 {
namespace {

constexpr Milliseconds kLongestTurn{60000};
constexpr std::size_t kWindow = 256;  // unanswered requests of a pipeline

Result<Address> parsed(const std::string& text) {
  return Address::parse(text);
}

// A request that timed out after it was sent may still be running: it is not repeated.
bool mayRepeat(const Request& request, const Error& error) {
  const bool safe = error.outcome() == Outcome::notSent || request.repeatable();
  return error.transient() && error.cause() != Cause::silence && safe;
}

Error malformed(std::string_view task) {
  return Error(Kind::link, Cause::protocol, "malformed answer to " + std::string(task))
      .with(Outcome::answered);
}

// The first argument tells what a failed task was about.
std::string subjectOf(const Request& request) {
  const std::vector<std::string>& words = request.words();
  return words.size() > 1 ? words[1] : words[0];
}

template <typename Value>
Result<Value> parseWith(const Result<Reply>& reply,
                        std::optional<Value> (*parse)(std::string_view text),
                        std::string_view task) {
  if (!reply) {
    return reply.error();
  }
  std::optional<Value> value = parse(reply->output());
  if (!value) {
    return malformed(task);
  }
  return std::move(*value);
}

Result<void> withoutValue(const Result<Reply>& reply) {
  return reply ? Result<void>() : Result<void>(reply.error());
}

Result<std::string> outputOf(Result<Reply> reply) {
  if (!reply) {
    return reply.error();
  }
  return reply->takeOutput();
}

Result<ProgramResult> programOf(const Request& request, Result<Reply> reply) {
  if (!reply) {
    return reply.error();
  }
  if (reply->state() == ProgramState::none) {
    return reply->error(subjectOf(request));
  }
  ProgramResult program;
  program.state = reply->state();
  program.exitStatus = reply->state() == ProgramState::exited ? reply->result() : 0;
  program.signal = reply->signal();
  program.output = reply->takeOutput();
  return program;
}

}  // namespace

Device::Data::Data(Result<Address> itsAddress, DeviceOptions itsOptions)
    : address(std::move(itsAddress)),
      options(itsOptions),
      engine(loop, address ? *address : Address(""), options) {
  loop.setResolver(blockingResolver());
}

void Device::Data::runUntil(const bool& done) {
  while (!done) {
    loop.turn(kLongestTurn);
  }
}

bool Device::Data::runFor(Milliseconds time, const bool& done) {
  bool over = false;
  Timer timer = loop.after(time, [&] { over = true; });
  while (!done && !over) {
    loop.turn(kLongestTurn);
  }
  loop.cancel(timer);
  return done;
}

Reply Device::Data::askOnce(const Request& request) {
  Reply result;
  bool done = false;
  loop.step();  // detects a connection that was closed meanwhile
  engine.ask(request, [&](Reply reply) {
    result = std::move(reply);
    done = true;
  });
  runUntil(done);
  return result;
}

Result<Reply> Device::Data::ask(const Request& request) {
  if (!address) {
    return address.error();
  }
  for (int attempts = 1; true; ++attempts) {
    Reply reply = askOnce(request);
    if (reply.answered()) {
      return reply;
    }
    if (attempts > options.retries() || !mayRepeat(request, reply.error())) {
      return reply.error();
    }
    const bool never = false;
    (void)runFor(retryPause(options.retryPause(), attempts), never);
  }
}

Result<Reply> Device::Data::check(const Request& request) {
  Result<Reply> reply = ask(request);
  if (reply && !reply->ok()) {
    return reply->error(subjectOf(request));
  }
  return reply;
}

Result<bool> Device::Data::flag(const Request& request, std::initializer_list<int> negative) {
  const Result<Reply> reply = ask(request);
  if (!reply) {
    return reply.error();
  }
  const bool refused =
      reply->status() == Status::failure &&
      std::find(negative.begin(), negative.end(), reply->number()) != negative.end();
  if (!reply->ok() && !refused) {
    return reply->error(subjectOf(request));
  }
  return reply->ok();
}

Device::Device(const std::string& address, DeviceOptions options)
    : data_(std::make_unique<Data>(parsed(address), std::move(options))) {}

Device::Device(Address address, DeviceOptions options)
    : data_(std::make_unique<Data>(std::move(address), std::move(options))) {}

Device::~Device() = default;
Device::Device(Device&& other) noexcept = default;
Device& Device::operator=(Device&& other) noexcept = default;

const Address& Device::address() const {
  return data_->engine.address();
}

void Device::close() {
  data_->engine.close(Error(Kind::local, Cause::cancelled, "the connection was closed here"));
}

Result<Reply> Device::ask(const Request& request) {
  return data_->ask(request);
}

std::vector<Reply> Device::pipeline(const std::vector<Request>& requests) {
  if (!data_->address) {
    return std::vector<Reply>(requests.size(), Reply(data_->address.error()));
  }
  std::vector<Reply> replies;
  std::size_t asked = 0;
  data_->loop.step();
  while (replies.size() < requests.size()) {
    for (; asked < requests.size() && asked < replies.size() + kWindow; ++asked) {
      data_->engine.ask(requests[asked],
                        [&replies](Reply reply) { replies.push_back(std::move(reply)); });
    }
    data_->loop.turn(kLongestTurn);
    if (!replies.empty() && !replies.back().answered()) {
      break;  // nothing is repeated on a new connection
    }
  }
  if (replies.size() < requests.size()) {
    const Error why = replies.back().error().with(Outcome::notSent);
    replies.resize(requests.size(), Reply(why));
  }
  return replies;
}

Result<bool> Device::access(const std::string& path, int mode) {
  return data_->flag(Request({"access", path, std::to_string(mode)}),
                     {EPERM, ENOENT, EACCES, ENOTDIR, EROFS});
}

Result<void> Device::append(const std::string& path, std::string data) {
  return withoutValue(data_->check(Request({"append", path}, std::move(data))));
}

Result<void> Device::chmodx(const std::string& path) {
  return withoutValue(data_->check(Request({"chmodx", path})));
}

Result<bool> Device::fileExists(const std::string& path) {
  return data_->flag(Request({"fileexists", path}), {ENOENT, ENOTDIR});
}

Result<std::uint64_t> Device::freeBlocks(const std::string& path) {
  return parseWith(data_->check(Request({"freeblocks", path})), parseNumber, "freeblocks");
}

Result<Stat> Device::lstat(const std::string& path) {
  return parseWith(data_->check(Request({"lstat", path})), parseStat, "lstat");
}

Result<std::string> Device::read(const std::string& path) {
  return outputOf(data_->check(Request({"read", path})));
}

Result<std::vector<std::string>> Device::readdir(const std::string& path) {
  return parseWith(data_->check(Request({"readdir", path})), parseNames, "readdir");
}

Result<std::string> Device::realpath(const std::string& path) {
  return outputOf(data_->check(Request({"realpath", path})));
}

Result<void> Device::rename(const std::string& source, const std::string& target) {
  return withoutValue(data_->check(Request({"rename", source, target})));
}

Result<Stat> Device::stat(const std::string& path) {
  return parseWith(data_->check(Request({"stat", path})), parseStat, "stat");
}

Result<void> Device::unlink(const std::string& path) {
  return withoutValue(data_->check(Request({"unlink", path})));
}

Result<std::vector<TreeEntry>> Device::walktree(const std::string& path) {
  return parseWith(data_->check(Request({"walktree", path})), parseTree, "walktree");
}

Result<void> Device::write(const std::string& path, std::string data) {
  return withoutValue(data_->check(Request({"write", path}, std::move(data))));
}

Result<ProgramResult> Device::exec(const std::vector<std::string>& argv,
                                   std::chrono::seconds limit) {
  const std::chrono::seconds its = limit.count() != 0 ? limit : data_->options.programLimit();
  const Request request = Request::exec(argv, static_cast<int>(std::max<long>(its.count(), 0)));
  return programOf(request, data_->ask(request));
}

Result<void> Device::start(const std::vector<std::string>& argv) {
  const Request request = Request::exec(argv, -1);
  const Result<Reply> reply = data_->ask(request);
  if (reply && reply->status() != Status::running) {
    return reply->error(subjectOf(request));
  }
  return withoutValue(reply);
}

Result<ProgramResult> Device::wait() {
  const Request request({"wait"});
  return programOf(request, data_->ask(request));
}

Result<ProgramResult> Device::kill() {
  const Request request({"kill"});
  return programOf(request, data_->ask(request));
}

Result<bool> Device::processRunning(const std::string& name) {
  return data_->flag(Request({"processrunning", name}), {ESRCH});
}

Result<std::string> Device::hostid() {
  return outputOf(data_->check(Request({"hostid"})));
}

Result<std::string> Device::deviceType() {
  return outputOf(data_->check(Request({"devicetype"})));
}

Result<void> Device::changeLeds(bool first, bool second) {
  return withoutValue(data_->check(Request({"changeleds", first ? "1" : "0", second ? "1" : "0"})));
}

Result<void> Device::blinkLeds(const std::string& style) {
  return withoutValue(data_->check(Request({"blinkleds", style})));
}

Result<void> Device::updateUmState(const std::string& key, std::string state) {
  return withoutValue(data_->check(Request({"updateumstate", key}, std::move(state))));
}

// The answer to "reboot" carries the status of the previous task.
Result<void> Device::reboot() {
  return withoutValue(data_->ask(Request({"reboot"})));
}

Result<void> Device::restart() {
  bool closed = false;
  data_->engine.setClosed([&](const Error&) { closed = true; });
  const Result<Reply> sent = data_->ask(Request({"restart"}));
  const bool ended = sent && data_->runFor(data_->options.ioTimeout(), closed);
  data_->engine.setClosed(nullptr);
  if (!sent) {
    return sent.error();
  }
  return ended ? Result<void>()
               : Error(Kind::timeout, Cause::silence, "the connection did not end", ETIMEDOUT)
                     .with(Outcome::unknown);
}

}  // namespace v1
}  // namespace runel
