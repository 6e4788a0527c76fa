// SPDX-License-Identifier: Apache-2.0
#include <runel/async_master.h>

#include <utility>

#include "client/master/master_connection.h"
#include "client/master/master_engine.h"

namespace runel {
inline namespace v1 {

struct MasterUser::Data {
  std::shared_ptr<MasterConnection::User> user;
};

MasterUser::MasterUser(std::unique_ptr<Data> data) : data_(std::move(data)) {}

MasterUser::~MasterUser() {
  if (data_->user->connection != nullptr) {
    data_->user->connection->detach(data_->user);
  }
}

void MasterUser::forward(std::string payload, Answer answer) {
  if (data_->user->connection != nullptr) {
    data_->user->connection->forward(data_->user, std::move(payload), std::move(answer));
  }
}

struct UserRequest::Data {
  explicit Data(SlaveLink::UserPayload itsPayload) : payload(std::move(itsPayload)) {}

  SlaveLink::UserPayload payload;
  MasterConnection::UserHandlers handlers;
  SlaveLink::LongAnswers answers;
};

UserRequest::UserRequest(std::string payload)
    : data_(std::make_unique<Data>(SlaveLink::UserPayload(std::move(payload)))) {}

// Its last byte is in memory, so that it can still be replaced when the rest is sent.
UserRequest::UserRequest(std::size_t size, Read read) {
  OutgoingPayload payload;
  if (size > 0) {
    read(size - 1, 1, payload.tail);
    payload.tail.resize(1);
    payload.content = {size - 1, std::move(read)};
  }
  data_ = std::make_unique<Data>(SlaveLink::UserPayload(std::move(payload)));
}

UserRequest::UserRequest(UserRequest&& other) noexcept = default;
UserRequest& UserRequest::operator=(UserRequest&& other) noexcept = default;
UserRequest::~UserRequest() = default;

UserRequest& UserRequest::onSent(std::function<void()> sent) {
  data_->handlers.sent = std::move(sent);
  return *this;
}

UserRequest& UserRequest::onAnswer(std::function<void(std::string payload)> answer) {
  data_->handlers.answer = std::move(answer);
  return *this;
}

UserRequest& UserRequest::onFailed(std::function<void(const Error& error)> failed) {
  data_->handlers.failed = std::move(failed);
  return *this;
}

UserRequest& UserRequest::setLongAnswers(std::size_t least,
                                         std::function<Sink(std::size_t size)> make) {
  data_->answers = {std::move(make), least};
  return *this;
}

std::uint64_t MasterUser::send(UserRequest request) {
  if (data_->user->connection == nullptr) {
    return 0;
  }
  UserRequest::Data& parts = *request.data_;
  return data_->user->connection->send(data_->user, std::move(parts.payload),
                                       std::move(parts.handlers), std::move(parts.answers));
}

bool MasterUser::withdraw(std::uint64_t number) {
  MasterConnection* const connection = data_->user->connection;
  return connection != nullptr && connection->withdraw(*data_->user, number);
}

void MasterUser::check() {
  if (data_->user->connection != nullptr) {
    data_->user->connection->check();
  }
}

Clock::time_point MasterUser::lastProgress() const {
  const MasterConnection* const connection = data_->user->connection;
  return connection == nullptr ? Clock::time_point() : connection->lastProgress();
}

bool MasterUser::busy() const {
  return data_->user->busy;
}

void MasterUser::setReading(bool on) {
  if (data_->user->connection != nullptr) {
    data_->user->connection->setReading(*data_->user, on);
  }
}

Result<std::unique_ptr<MasterUser>> MasterEngine::attach(const std::string& name,
                                                         MasterUser::Handlers handlers) {
  const Result<MasterConnection*> found = only(name);
  if (!found) {
    return found.error();
  }
  auto data = std::make_unique<MasterUser::Data>();
  data->user = (*found)->attach(std::move(handlers));
  return std::unique_ptr<MasterUser>(new MasterUser(std::move(data)));
}

struct AsyncMaster::Data {
  Data(Loop& loop, const MasterOptions& options, Handler handler)
      : engine{loop, options, std::move(handler)} {}

  MasterEngine engine;
};

AsyncMaster::AsyncMaster(Loop& loop, const MasterOptions& options, Handler handler)
    : data_(std::make_unique<Data>(loop, options, std::move(handler))) {}

AsyncMaster::~AsyncMaster() = default;

Result<void> AsyncMaster::open() {
  return data_->engine.open();
}

std::uint16_t AsyncMaster::port() const {
  return data_->engine.port();
}

std::vector<std::uint16_t> AsyncMaster::ports() const {
  return data_->engine.ports();
}

std::size_t AsyncMaster::unidentified() const {
  return data_->engine.unidentified();
}

std::size_t AsyncMaster::silent() const {
  return data_->engine.silent();
}

bool AsyncMaster::silence(const std::string& place) {
  return data_->engine.silence(place);
}

bool AsyncMaster::resume(const std::string& place) {
  return data_->engine.resume(place);
}

std::vector<DeviceInfo> AsyncMaster::devices() const {
  return data_->engine.devices();
}

std::vector<DeviceInfo> AsyncMaster::find(const std::string& name) const {
  return data_->engine.find(name);
}

void AsyncMaster::ask(const std::string& name, const Request& request, ReplyHandler handler) {
  data_->engine.ask(name, request, std::move(handler));
}

Result<std::unique_ptr<MasterUser>> AsyncMaster::attach(const std::string& name,
                                                        MasterUser::Handlers handlers) {
  return data_->engine.attach(name, std::move(handlers));
}

Result<void> AsyncMaster::sendClause(const std::string& name, const std::string& clause) {
  return data_->engine.sendClause(name, clause);
}

}  // namespace v1
}  // namespace runel
