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
