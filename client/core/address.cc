// SPDX-License-Identifier: Apache-2.0
#include <runel/address.h>

#include <utility>

#include "client/core/host_text.h"
#include "protocol/protocol.h"

namespace runel {
inline namespace v1 {

static_assert(kTaskPort == zell::kDevicePort);
static_assert(kMasterListenPort == zell::kMasterPort);

struct Address::Data {
  std::string name;
  std::string host;
  std::uint16_t port;
  std::string through;
};

Address::Address(std::shared_ptr<const Data> data) : data_(std::move(data)) {}

Address::Address(const std::string& host, std::uint16_t port)
    : Address(std::make_shared<const Data>(
          Data{port == kTaskPort ? host : host + ":" + std::to_string(port), host, port, ""})) {}

Address Address::behindMaster(const std::string& name) {
  return Address(std::make_shared<const Data>(Data{"@" + name, "", 0, name}));
}

Result<Address> Address::parse(const std::string& text) {
  if (text.size() > 1 && text[0] == '@') {
    return behindMaster(text.substr(1));
  }
  const std::size_t colon = text.find(':');
  const std::string host = text.substr(0, colon);
  std::uint16_t port = kTaskPort;
  if (!isHostText(host)) {
    return Error(Kind::local, Cause::other, "invalid address or host name '" + text + "'");
  }
  if (colon != std::string::npos && !parsePort(text.substr(colon + 1), port)) {
    return Error(Kind::local, Cause::other,
                 "invalid port '" + text.substr(colon + 1) + "': expected 1 to 65535");
  }
  return Address(host, port).named(text);
}

Address Address::named(const std::string& name) const {
  Data data = *data_;
  data.name = name;
  return Address(std::make_shared<const Data>(std::move(data)));
}

const std::string& Address::name() const {
  return data_->name;
}

const std::string& Address::host() const {
  return data_->host;
}

std::uint16_t Address::port() const {
  return data_->port;
}

const std::string& Address::through() const {
  return data_->through;
}

std::string Address::text() const {
  return isBehindMaster() ? "@" + through() : host() + ":" + std::to_string(port());
}

bool Address::operator==(const Address& other) const {
  return host() == other.host() && port() == other.port() && through() == other.through();
}

}  // namespace v1
}  // namespace runel
