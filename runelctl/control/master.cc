// SPDX-License-Identifier: Apache-2.0
#include "control/master.h"

#include <string_view>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <nlohmann/json.hpp>

namespace runelctl {
namespace {

// Why a connection was refused, with the option that refused it.
std::string reasonOf(const runel::MasterEvent& event) {
  switch (event.refusal()) {
    case runel::MasterEvent::Refusal::address:
      return event.text() + " by --allow";
    case runel::MasterEvent::Refusal::hostid:
      return event.text() + " by --allow-hostid";
    default:
      return event.text();
  }
}

Json describe(const runel::DeviceInfo& device) {
  Json object{{"v", 1},
              {"device", device.hostid().empty() ? device.host() : device.hostid()},
              {"task", "devices"},
              {"hostid", device.hostid()},
              {"devicetype", device.deviceType()},
              {"address", device.host()},
              {"port", device.port()},
              {"since", utcText(device.connectedSince())},
              {"connected_s", device.connectedFor().count() / 1000},
              {"first_seen", utcText(device.firstSeen())},
              {"connects", device.connects()},
              {"losses", device.losses()},
              {"users", device.users()},
              {"requests", device.requests()},
              {"bytes_to_device", device.bytesToDevice()},
              {"bytes_from_device", device.bytesFromDevice()},
              {"further", device.additional()},
              {"agents", device.agents()},
              {"clauses", device.clauses()}};
  if (device.losses() > 0) {
    object["last_loss"] = utcText(device.lastLoss());
    object["last_loss_why"] = device.lastLossReason();
  }
  return object;
}

}  // namespace

Master::Master(runel::Loop& loop, const MasterSettings& settings, Journal& journal)
    : loop_(loop),
      settings_(settings),
      journal_(journal),
      control_(loop, [this](const std::string& line, zell::UniqueFd socket) {
        asked(line, std::move(socket));
      }) {}

std::string Master::open() {
  // The control socket first: it detects another master before the port is found in use.
  std::string wrong = control_.open(settings_.socket);
  if (wrong.empty()) {
    wrong = listen();
  }
  return wrong;
}

std::string Master::listen() {
  const std::string where = settings_.host + ":" + std::to_string(settings_.port);
  const runel::Result<in_addr> address = runel::resolveBlocking(settings_.host);
  if (!address) {
    return where + ": " + address.error().text();
  }
  char text[INET_ADDRSTRLEN] = "";
  (void)inet_ntop(AF_INET, &*address, text, sizeof text);  // the buffer fits every address
  runel::MasterOptions options = settings_.options;
  options.setListen(text, settings_.port);
  master_ = std::make_unique<runel::AsyncMaster>(
      loop_, options, [this](const runel::MasterEvent& event) { happened(event); });
  const runel::Result<void> opened = master_->open();
  if (!opened) {
    return where + ": " + runel::systemText(opened.error().number());
  }
  journal_.listening(where, settings_.socket);
  return "";
}

void Master::happened(const runel::MasterEvent& event) {
  const Label who{event.hostid(), event.host(), event.port()};
  switch (event.type()) {
    case runel::MasterEvent::Type::connected:
      return journal_.connected(who, event.deviceType());
    case runel::MasterEvent::Type::lost:
      return journal_.lost(who, "slave", event.text());
    case runel::MasterEvent::Type::refused:
      return journal_.refused(who, reasonOf(event));
    case runel::MasterEvent::Type::additional:
      return journal_.further(who);
    case runel::MasterEvent::Type::agentConnected:
      return journal_.agent(who);
    case runel::MasterEvent::Type::clause:
      return journal_.clause(who, event.text());
    case runel::MasterEvent::Type::additionalLost:
      return journal_.lost(who, event.fromAgent() ? "agent" : "further", event.text());
    case runel::MasterEvent::Type::problem:
      return journal_.problem(event.text());
  }
}

void Master::asked(const std::string& line, zell::UniqueFd socket) {
  static constexpr std::string_view kAttach = "attach ";
  if (line == "devices") {
    control_.sendAndClose(std::move(socket), list());
  } else if (line.compare(0, kAttach.size(), kAttach) == 0) {
    attach(line.substr(kAttach.size()), std::move(socket));
  } else {
    control_.sendAndClose(std::move(socket), "unknown request\n");
  }
}

void Master::attach(const std::string& name, zell::UniqueFd socket) {
  const auto place = attachments_.insert(attachments_.end(), nullptr);
  const auto ended = [this, place] {
    loop_.next([gone = std::move(*place)] { (void)gone; });  // the attachment is still on the stack
    attachments_.erase(place);
  };
  const auto attachment = *place = std::make_shared<Attachment>(loop_, ended);
  auto user = master_->attach(name, attachment->handlers());
  if (!user) {
    control_.sendAndClose(std::move(socket), user.error().text() + "\n");
    attachments_.erase(place);
    return;
  }
  static constexpr std::string_view kOk = "ok\n";
  if (send(socket.get(), kOk.data(), kOk.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
      static_cast<ssize_t>(kOk.size())) {
    attachment->start(std::move(socket), *std::move(user));
  } else {
    attachments_.erase(place);
  }
}

std::string Master::list() const {
  std::string text;
  for (const runel::DeviceInfo& device : master_->devices()) {
    text += describe(device).dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
  }
  return text;
}

}  // namespace runelctl
