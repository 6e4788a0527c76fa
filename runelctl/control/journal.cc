// SPDX-License-Identifier: Apache-2.0
#include "control/journal.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "output/error.h"
#include "output/standard_output.h"

namespace runelctl {
namespace {

std::string localTime() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  char text[32];
  (void)localtime_r(&now, &parts);
  return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts));
}

std::string shown(const Label& who) {
  const std::string where = who.address + ":" + std::to_string(who.port);
  return who.hostid.empty() ? where : who.hostid + " (" + where + ")";
}

}  // namespace

std::int64_t wallClock() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

std::string utcText(std::int64_t milliseconds) {
  const std::time_t seconds = milliseconds / 1000;
  std::tm parts{};
  char text[32];
  char fraction[16];
  (void)gmtime_r(&seconds, &parts);
  (void)std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  (void)std::snprintf(fraction, sizeof fraction, ".%03dZ", static_cast<int>(milliseconds % 1000));
  return std::string(text) + fraction;
}

Journal::Journal(runel::Loop& loop, const Style& style, bool xml)
    : style_(style),
      xml_(xml),
      outlet_(loop, StandardOutput::descriptor()),
      errors_(loop, STDERR_FILENO) {}

std::string Journal::keepClauses(const std::string& path) {
  keptPath_ = path;
  kept_.reset(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  return kept_.valid() ? "" : path + ": " + runel::systemText(errno);
}

void Journal::listening(const std::string& where, const std::string& socket) {
  tell("listening", nullptr, "listening for devices on " + where + ", for runelctl on " + socket,
       {{"address", where}, {"socket", socket}});
}

void Journal::connected(const Label& who, const std::string& deviceType) {
  tell("connected", &who, "connected" + (deviceType.empty() ? "" : ", type " + deviceType),
       {{"devicetype", deviceType}});
}

void Journal::further(const Label& who) {
  tell("further", &who, "additional connection", Json::object());
}

void Journal::agent(const Label& who) {
  tell("agent", &who, "additional connection carries an agent's data", Json::object());
}

void Journal::lost(const Label& who, const std::string& role, const std::string& why) {
  const std::string what = role == "slave"   ? "lost: "
                           : role == "agent" ? "agent disconnected: "
                                             : "additional connection closed: ";
  tell("lost", &who, what + why, {{"role", role}, {"why", why}});
}

void Journal::refused(const Label& who, const std::string& why) {
  tell("refused", &who, "refused: " + why, {{"why", why}});
}

void Journal::clause(const Label& who, const std::string& clause) {
  Json details{{"time", utcText(wallClock())}};  // the same time in the file and in the output
  putBytes(details, "clause", clause);
  if (kept_.valid()) {
    Json whole = object("clause", &who);
    whole.update(details);
    // A failed write may have left an incomplete line.
    const bool good = writeAll(kept_.get(), (keptFailed_ ? "\n" : "") + jsonLine(whole, false));
    if (!good && !keptFailed_) {
      problem(keptPath_ + ": " + runel::systemText(errno));
    }
    keptFailed_ = !good;
  }
  if (xml_ && !style_.quiet) {
    tell("clause", &who, clause, details);
  }
}

void Journal::problem(const std::string& text) {
  errors_.write("runelctl: " + terminalSafe(text) + "\n");
}

Json Journal::object(const std::string& event, const Label* who) const {
  Json object = Json::object();
  object["v"] = 1;
  object["event"] = event;
  object["time"] = utcText(wallClock());
  if (who != nullptr) {
    object["device"] = who->hostid.empty() ? who->address : who->hostid;
    object["hostid"] = who->hostid;
    object["address"] = who->address;
    object["port"] = who->port;
  }
  return object;
}

void Journal::tell(const std::string& event, const Label* who, const std::string& text,
                   const Json& details) {
  if (style_.json) {
    Json whole = object(event, who);
    whole.update(details);
    outlet_.write(StandardOutput::visible(style_, jsonLine(whole, style_.outTerminal)));
  } else if (!style_.quiet) {
    const std::string about = who != nullptr ? style_.name(shown(*who)) + ": " : "";
    const std::string told = localTime() + " " + about + style_.name(text) + "\n";
    outlet_.write(StandardOutput::visible(style_, told));
  }
}

}  // namespace runelctl
