// SPDX-License-Identifier: Apache-2.0
#include <utility>

#include <runel/request.h>
#include <zell/slave_task.h>

namespace runel {
inline namespace v1 {
namespace {

// Describes how a program ended.
std::string programText(const zell::ResultStatus& status) {
  if (status.status == zell::SlaveStatus::timeout) {
    return "exceeded its time limit";
  }
  if (status.state == zell::WatchProcessState_t::signalled) {
    return "terminated by signal " + std::to_string(status.signal);
  }
  return "exit status " + std::to_string(status.result);
}

}  // namespace

struct Reply::Data {
  std::optional<Error> error;
  std::string output;
  zell::ResultStatus status;
};

Reply::Reply() : data_(std::make_shared<Data>()) {}

Reply::Reply(Error error) : data_(std::make_shared<Data>()) {
  data_->error = std::move(error);
}

std::optional<Reply> Reply::decode(std::string payload) {
  zell::SlaveTask record;
  if (!zell::SlaveTask::isA(payload) || !record.parse(std::move(payload))) {
    return std::nullopt;
  }
  Reply reply;
  reply.data_->output = record.takeOutput();
  reply.data_->status = record.status();
  return reply;
}

bool Reply::answered() const {
  return !data_->error;
}

bool Reply::ok() const {
  return answered() && data_->status.status == zell::SlaveStatus::success;
}

const std::string& Reply::output() const {
  return data_->output;
}

std::string Reply::takeOutput() {
  return data_.use_count() == 1 ? std::move(data_->output) : data_->output;
}

Status Reply::status() const {
  return static_cast<Status>(data_->status.status);
}

ProgramState Reply::state() const {
  return static_cast<ProgramState>(data_->status.state);
}

int Reply::result() const {
  return data_->status.result;
}

int Reply::number() const {
  return data_->status.error;
}

int Reply::signal() const {
  return data_->status.signal;
}

Error Reply::error(std::string_view what) const {
  if (data_->error) {
    return *data_->error;
  }
  const zell::ResultStatus& status = data_->status;
  const std::string about = what.empty() ? "" : std::string(what) + ": ";
  if (status.status == zell::SlaveStatus::error) {
    return {Kind::device, Cause::refused, about + "the device refused the task: " + output(),
            status.error};
  }
  if (status.state != zell::WatchProcessState_t::none) {
    const bool late = status.status == zell::SlaveStatus::timeout;
    return {Kind::program, late ? Cause::programTimeout : Cause::programFailed,
            about + programText(status), status.error};
  }
  return {Kind::device, Cause::other, about + systemText(status.error), status.error};
}

}  // namespace v1
}  // namespace runel
