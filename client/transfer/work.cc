// SPDX-License-Identifier: Apache-2.0
#include "client/transfer/work.h"

#include <algorithm>
#include <utility>

#include "client/core/paths.h"
#include "client/transfer/parts.h"

namespace runel {
inline namespace v1 {

TransferWork::TransferWork(AsyncDevice& device, const TransferOptions& options,
                           AsyncTransfer::Done done)
    : device_(device), options_(options), callback_(std::move(done)) {}

std::size_t TransferWork::pieceBytes() const {
  constexpr std::size_t kMostPiece = 8388608;
  const std::size_t bytes = std::min(options_.memory() / 2, kMostPiece);
  return std::max(bytes / kPieceBlock, std::size_t{1}) * kPieceBlock;
}

void TransferWork::ask(const Request& request, Answer answer) {
  if (ended_) {
    return;
  }
  const bool alone = device_.pending() == 0;
  device_.ask(request, [this, alive = std::weak_ptr<bool>(alive_), alone, asked = Clock::now(),
                        answer = std::move(answer)](const Reply& reply) {
    if (alive.expired() || ended_) {
      return;
    }
    if (reply.answered()) {
      answered(alone, asked);
      answer(reply);
      return;
    }
    const Error error = reply.error();
    end(reached_ ? error.with(Outcome::unknown) : error);
  });
}

// The first request also waits for the connection.
void TransferWork::answered(bool alone, Clock::time_point asked) {
  if (alone && reached_) {
    const auto time = Clock::now() - asked;
    fastestAnswer_ = std::min(fastestAnswer_.value_or(time), time);
  }
  reached_ = true;
}

void TransferWork::tell(const Request& request) {
  ask(request, [](const Reply&) {});
}

void TransferWork::later(std::function<void()> call) {
  device_.loop().next([this, alive = std::weak_ptr<bool>(alive_), call = std::move(call)] {
    if (!alive.expired() && !ended_) {
      call();
    }
  });
}

void TransferWork::pipe(Pipeline::Source source, std::function<void()> next) {
  pipe(
      std::move(source), [this] { return options_.memory(); }, std::move(next));
}

void TransferWork::pipe(Pipeline::Source source, Pipeline::Window window,
                        std::function<void()> next) {
  pipeline_ = std::make_unique<Pipeline>(
      [this](const Request& request, Answer answer) { ask(request, std::move(answer)); },
      std::move(source), std::move(window), std::move(next));
  pipeline_->start();
}

void TransferWork::fail(const Error& error) {
  if (done_.error) {
    done_.warnings.push_back(error.text());
  } else {
    done_.error = error;
  }
}

void TransferWork::warn(const std::string& text) {
  done_.warnings.push_back(text);
  done_.partial = true;
}

void TransferWork::warnOnce(const std::string& text) {
  if (warned_.insert(text).second) {
    warn(text);
  }
}

void TransferWork::count(std::uint64_t bytes, const std::string& name) {
  done_.bytes += bytes;
  skip(bytes, name);
}

void TransferWork::skip(std::uint64_t bytes, const std::string& name) {
  progressed_ += bytes;
  if (options_.progress()) {
    options_.progress()({progressed_, expected_, baseName(name)});
  }
}

void TransferWork::tellChange(const TransferChange& change) {
  using Action = TransferChange::Action;
  const bool content = change.action == Action::create || change.action == Action::replace;
  if (options_.planOnly() && content && change.type == '-') {
    ++done_.files;
    done_.bytes += change.size;
  }
  if (options_.changeHandler()) {
    options_.changeHandler()(change);
  }
}

void TransferWork::keep(std::uint64_t bytes, const std::string& name) {
  done_.kept += bytes;
  skip(bytes, name);
}

// The failure of a file before the end is reported too.
void TransferWork::end(const Error& error) {
  if (done_.error) {
    done_.warnings.insert(done_.warnings.begin(), done_.error->text());
  }
  done_.error = error;
  callDone();
}

void TransferWork::finish() {
  done_.complete = true;
  callDone();
}

// A stage is the caller, and the callback may destroy it.
void TransferWork::callDone() {
  ended_ = true;
  device_.loop().next([this, alive = std::weak_ptr<bool>(alive_)] {
    if (!alive.expired()) {
      const AsyncTransfer::Done callback = std::move(callback_);
      callback(report());
    }
  });
}

TransferReport TransferWork::report() const {
  return TransferReport(std::make_shared<const TransferReport::Data>(done_));
}

}  // namespace v1

Error malformedTree() {
  return Error(Kind::link, Cause::protocol, "malformed directory tree");
}

std::optional<Stat> statIn(const Reply& reply) {
  return reply.ok() ? parseStat(reply.output()) : std::nullopt;
}

}  // namespace runel
