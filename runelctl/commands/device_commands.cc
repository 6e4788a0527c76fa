// SPDX-License-Identifier: Apache-2.0
// Commands about the device itself: ping, info, raw.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include <runel/records.h>
#include "commands/command.h"

#include "client/core/paths.h"
#include "commands/installed_version.h"
#include "commands/number_range.h"
#include "commands/raw_text.h"
#include "protocol/frame_sender.h"

namespace runelctl {
namespace {

// Needs only one system call on the device.
runel::Request cheapTask() {
  return runel::Request({"fileexists", "/"});
}

class PingJob : public Job {
 public:
  PingJob(JobContext context, int count, double pause)
      : Job(std::move(context)), count_(count), pause_(pause) {}
  /// Reports the statistics of an interrupted ping.
  ~PingJob() override {
    loop().cancel(timer_);
    if (!summed_ && !times_.empty()) {
      sum();
    }
  }

  void start() override {
    sent_ = runel::Clock::now();
    ask(cheapTask(), [this](const runel::Reply& reply) { back(reply); });
  }
  [[nodiscard]] std::string sentLater() const override {
    return count_ == 1 ? ""
                       : "the same task after each answer, " +
                             countText(static_cast<std::size_t>(count_), "time") + " in total";
  }

 private:
  void back(const runel::Reply& reply) {
    if (!reply.answered()) {
      fail(reply.error());
      return;
    }
    const double ms =
        std::chrono::duration<double, std::milli>(runel::Clock::now() - sent_).count();
    times_.push_back(ms);
    report().line("answer " + std::to_string(times_.size()) + ": " + text(ms) + " ms");
    report().entry([ms] { return Json{{"entry", "ping"}, {"ms", ms}}; });
    if (times_.size() < static_cast<std::size_t>(count_)) {
      const auto pause = std::chrono::duration<double>(pause_);
      timer_ =
          loop().after(std::chrono::duration_cast<runel::Milliseconds>(pause), [this] { start(); });
      return;
    }
    sum();
    succeed();
  }

  // The first time includes the connection setup. Exclude it if there are others.
  void sum() {
    summed_ = true;
    std::vector<double> sorted(times_.begin() + (times_.size() > 1 ? 1 : 0), times_.end());
    std::sort(sorted.begin(), sorted.end());
    const double median = (sorted[(sorted.size() - 1) / 2] + sorted[sorted.size() / 2]) / 2;
    report().line(countText(times_.size(), "answer") + ", round trip min/median/max " +
                  text(sorted.front()) + "/" + text(median) + "/" + text(sorted.back()) + " ms");
    report().result()["min_ms"] = sorted.front();
    report().result()["median_ms"] = median;
    report().result()["max_ms"] = sorted.back();
  }

  static std::string text(double ms) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", ms);
    return text;
  }

  const int count_;
  const double pause_;
  std::vector<double> times_;
  bool summed_ = false;
  runel::Clock::time_point sent_;
  runel::Timer timer_;
};

class PingCommand : public Command {
 public:
  PingCommand() : Command("ping", "measure the round-trip time") {}
  void define(CLI::App& app) override {
    app.add_option("-c,--count", count_, "number of requests (default: 5)")
        ->check(numberRange(1, 1000000))
        ->type_name("N");
    app.add_option("-i,--interval", pause_, "pause between requests (default: 0.2)")
        ->check(numberRange(0.0, 3600.0))
        ->type_name("SECONDS");
  }
  std::unique_ptr<Job> job(JobContext context) override {
    return std::make_unique<PingJob>(std::move(context), count_, pause_);
  }

 private:
  int count_ = 5;
  double pause_ = 0.2;
};

// The columns of the table for several devices, and their labels in the list for one.
constexpr std::pair<const char*, const char*> kInfoColumns[] = {
    {"HOSTID", "hostid"}, {"TYPE", "devicetype"}, {"KERNEL", "kernel"},  {"HOSTNAME", "hostname"},
    {"UPTIME", "uptime"}, {"FREE", "free on /"},  {"VERSION", "version"}};

// A larger answer is a protocol error.
constexpr std::size_t kMostVersionFile = 65536;

// Reads the identity and the state of a device in one round trip.
class InfoJob : public Job {
 public:
  using Job::Job;

  void start() override {
    text("hostid", {"hostid"});
    text("devicetype", {"devicetype"});
    text("kernel", {"read", "/proc/sys/kernel/osrelease"});
    text("hostname", {"read", "/proc/sys/kernel/hostname"});
    ask(runel::Request({"read", "/proc/uptime"}),
        [this](const runel::Reply& reply) { uptime(reply); });
    ask(runel::Request({"stat", "/"}), [this](const runel::Reply& reply) {
      const std::optional<runel::Stat> st =
          reply.ok() ? runel::parseStat(reply.output()) : std::nullopt;
      blockSize_ = st ? st->blksize : 0;
    });
    askVersion();
    ask(runel::Request({"freeblocks", "/"}), [this](const runel::Reply& reply) { space(reply); });
  }

 private:
  void text(const std::string& label, std::vector<std::string> task) {
    ask(runel::Request(std::move(task)), [this, label](const runel::Reply& reply) {
      if (reply.ok()) {
        show(label, reply.output().substr(0, reply.output().find('\n')));
      }
    });
  }

  void askVersion() {
    runel::Request request({"read", kVersionFile});
    request.setReplyLimit(kMostVersionFile);
    ask(request, [this](const runel::Reply& reply) {
      const auto version = reply.ok() ? parseVersion(reply.output()) : std::nullopt;
      if (version) {
        show("version", *version);
      }
    });
  }

  void show(const std::string& label, const std::string& value) {
    line(label, value);
    putBytes(report().result(), label, value);
  }

  // Human-readable output only: the JSON output has the number.
  void line(const std::string& label, const std::string& value) {
    values_[label] = value;
    report().line(label + ": " + std::string(12 - std::min<std::size_t>(label.size(), 11), ' ') +
                  report().name(value));
  }

  void uptime(const runel::Reply& reply) {
    if (!reply.ok()) {
      return;
    }
    const auto seconds = std::strtoull(reply.output().c_str(), nullptr, 10);
    char shown[64];
    std::snprintf(shown, sizeof shown, "%llu days, %02llu:%02llu", seconds / 86400,
                  seconds / 3600 % 24, seconds / 60 % 60);
    line("uptime", shown);
    report().result()["uptime_s"] = seconds;
  }

  // The last answer ends the job.
  void space(const runel::Reply& reply) {
    if (!reply.answered()) {
      fail(reply.error());
      return;
    }
    if (reply.ok()) {
      const std::uint64_t free = std::strtoull(reply.output().c_str(), nullptr, 10) * blockSize_;
      line("free on /", sizeText(free));
      report().result()["free_bytes"] = free;
    }
    for (const auto& [column, label] : kInfoColumns) {
      const auto value = values_.find(label);
      report().cell(column, value == values_.end() ? "-" : value->second);
    }
    succeed();
  }

  std::uint64_t blockSize_ = 0;
  std::map<std::string, std::string> values_;  // by label
};

class InfoCommand : public Command {
 public:
  InfoCommand() : Command("info", "print identity, kernel, uptime and free space") {}
  void define(CLI::App& app) override { (void)app; }
  std::unique_ptr<Job> job(JobContext context) override {
    return std::make_unique<InfoJob>(std::move(context));
  }
};

// Dumps both frames completely.
class RawJob : public Job {
 public:
  RawJob(JobContext context, std::string payload)
      : Job(std::move(context)), payload_(std::move(payload)) {}
  ~RawJob() override { device().setTap(nullptr); }

  void start() override {
    dump("request", payload_);
    device().setTap([this](const std::string& payload) { dump("reply", payload); });
    runel::Request like = runel::Request({"read"});
    device().askRaw(payload_, like, [this](const runel::Reply& reply) {
      device().setTap(nullptr);
      if (!reply.answered()) {
        fail(reply.error());
      } else {
        finish({reply.ok() ? 0 : kExitTaskFailed, std::nullopt});
      }
    });
  }

 private:
  void dump(const std::string& label, const std::string& payload) {
    const std::string frame = zell::frameHead(payload.size()) + payload;
    report().line(label + ", " + countText(frame.size(), "byte"));
    report().bytes(hexDump(frame));
    putBytes(report().result(), label, payload);
  }

  const std::string payload_;
};

class RawCommand : public Command {
 public:
  RawCommand() : Command("raw", "send a raw record and dump both frames") {}

  void define(CLI::App& app) override {
    app.add_option("RECORD", text_, R"(the payload, with the escapes \n, \t, \r, \\ and \xNN)")
        ->required();
  }

  std::string check(const Settings& settings) override {
    (void)settings;
    return readRawText(text_, payload_)
               ? ""
               : "RECORD: invalid escape sequence (see runelctl raw --help)";
  }

  std::unique_ptr<Job> job(JobContext context) override {
    return std::make_unique<RawJob>(std::move(context), payload_);
  }

 private:
  std::string text_;
  std::string payload_;
};

}  // namespace

void addDeviceCommands(Commands& commands) {
  commands.push_back(std::make_unique<InfoCommand>());
  commands.push_back(std::make_unique<PingCommand>());
  commands.push_back(std::make_unique<RawCommand>());
}

}  // namespace runelctl
