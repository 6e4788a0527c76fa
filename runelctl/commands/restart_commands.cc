// SPDX-License-Identifier: Apache-2.0
// reboot and restart, with a verification.
#include <chrono>
#include <cstdio>
#include <string>
#include <utility>

#include <CLI/CLI.hpp>

#include "commands/command.h"
#include "commands/number_range.h"

namespace runelctl {
namespace {

constexpr runel::Milliseconds kPollPause{200};
constexpr runel::Milliseconds kPollConnect{2000};
constexpr runel::Milliseconds kPollSilence{5000};

/// How a reboot or restart is verified, and its time limits.
struct Proof {
  const char* task;
  const char* path;  ///< the file on the device that identifies the current run
  const char* name;  ///< the name of its content
  double downLimit;
  double upLimit;
};

// Identifies the daemon process by its pid and its start time, field 22 of its stat. Fields are
// counted after the last ')', because the process name may contain any bytes.
std::string startOf(const std::string& text) {
  std::size_t at = text.rfind(')');
  for (int field = 3; field <= 22 && at != std::string::npos; ++field) {
    at = text.find(' ', at + 1);
  }
  return at == std::string::npos ? text : text.substr(0, text.find(' ')) + text.substr(at, 24);
}

class RestartJob : public Job {
 public:
  RestartJob(JobContext context, const Proof& proof, bool wait)
      : Job(std::move(context)), proof_(proof), wait_(wait) {}
  ~RestartJob() override { loop().cancel(timer_); }

  void start() override {
    if (!wait_) {
      act();
      return;
    }
    ask(runel::Request({"read", proof_.path}), [this](const runel::Reply& reply) {
      if (!reply.ok()) {
        fail(reply, std::string("read ") + proof_.path);
        return;
      }
      before_ = identity(reply);
      act();
    });
    if (settings().dryRun) {
      act();
    }
  }
  [[nodiscard]] std::string sentLater() const override {
    return wait_ ? std::string("read ") + proof_.path + " repeatedly, until it shows a new " +
                       proof_.name
                 : "";
  }

 private:
  void act() {
    ask(runel::Request({proof_.task}), [this](const runel::Reply& reply) {
      // Ignore the status: the answer to "reboot" carries the status of the previous task.
      if (!reply.answered() && !(wait_ && reply.error().cause() == runel::Cause::closed)) {
        failUnanswered(reply.error());
      } else if (!wait_) {
        succeed();
      } else {
        watch();
      }
    });
  }

  // A device that restarts may be silent before it has answered, so this is no timeout.
  void failUnanswered(const runel::Error& why) {
    Error error = why;
    error.fault = why.outcome() == runel::Outcome::unknown ? Fault::lost : error.fault;
    fail(error);
  }

  void watch() {
    begin_ = runel::Clock::now();
    runel::DeviceOptions limits = device().options();
    limits.setConnectTimeout(std::min(limits.connectTimeout(), kPollConnect));
    limits.setIoTimeout(std::min(limits.ioTimeout(), kPollSilence));
    poller_ = std::make_unique<runel::AsyncDevice>(loop(), device().address(), limits);
    poll();
  }

  void poll() {
    poller_->ask(runel::Request({"read", proof_.path}),
                 [this](const runel::Reply& reply) { look(reply); });
  }

  void look(const runel::Reply& reply) {
    const bool different = reply.ok() && identity(reply) != before_;
    if (down_ < 0 && (!reply.answered() || different)) {
      down_ = seconds();
    }
    if (different) {
      back();
    } else if (down_ < 0 && seconds() > proof_.downLimit) {
      late("did not go down", proof_.downLimit);
    } else if (down_ >= 0 && seconds() - down_ > proof_.upLimit) {
      late(reply.ok() ? std::string("the device answers, but there is no new ") + proof_.name
                      : "did not come back",
           proof_.upLimit);
    } else {
      // Use a new connection each time: an old one may lead to the process that is ending.
      timer_ = loop().after(kPollPause, [this] {
        poller_->abandon();
        poll();
      });
    }
  }

  void back() {
    const double up = seconds();
    char text[160];
    std::snprintf(text, sizeof text, "%s done: down after %.1f s, back after %.1f s (new %s)",
                  proof_.task, down_, up, proof_.name);
    report().line(text);
    report().result()["down_s"] = down_;
    report().result()["back_s"] = up;
    succeed();
  }

  void late(const std::string& what, double limit) {
    char text[64];
    std::snprintf(text, sizeof text, " within %g s", limit);
    fail({Fault::timedOut, std::string(proof_.task) + ": " + what + text, "", 0});
  }

  [[nodiscard]] std::string identity(const runel::Reply& reply) const {
    return std::string(proof_.task) == "restart" ? startOf(reply.output()) : reply.output();
  }

  [[nodiscard]] double seconds() const {
    return std::chrono::duration<double>(runel::Clock::now() - begin_).count();
  }

  const Proof proof_;
  const bool wait_;
  std::string before_;
  runel::Clock::time_point begin_;
  double down_ = -1;
  std::unique_ptr<runel::AsyncDevice> poller_;
  runel::Timer timer_;
};

std::string wholeText(double seconds) {
  return std::to_string(static_cast<long>(seconds));
}

class RestartCommand : public Command {
 public:
  RestartCommand(const Proof& proof, const char* help) : Command(proof.task, help), proof_(proof) {}

  void define(CLI::App& app) override {
    app.add_flag("--wait", wait_, "wait until the reboot or restart is verified");
    app.add_option("--down-timeout", proof_.downLimit,
                   "limit for going down (default: " + wholeText(proof_.downLimit) + ")")
        ->check(numberRange(0.1, 86400.0))
        ->type_name("SECONDS");
    app.add_option("--up-timeout", proof_.upLimit,
                   "limit for coming back (default: " + wholeText(proof_.upLimit) + ")")
        ->check(numberRange(0.1, 86400.0))
        ->type_name("SECONDS");
  }

  std::unique_ptr<Job> job(JobContext context) override {
    return std::make_unique<RestartJob>(std::move(context), proof_, wait_);
  }

  [[nodiscard]] bool destructive() const override { return true; }
  [[nodiscard]] bool sequential() const override { return true; }
  [[nodiscard]] double allowedTime(const Settings& settings) const override {
    (void)settings;
    return wait_ ? proof_.downLimit + proof_.upLimit : 0;
  }

 private:
  Proof proof_;
  bool wait_ = false;
};

}  // namespace

void addRestartCommands(Commands& commands) {
  commands.push_back(std::make_unique<RestartCommand>(
      Proof{"reboot", "/proc/sys/kernel/random/boot_id", "boot_id", 60, 300},
      "reboot the device; several devices one after the other, unless -j is given"));
  // The daemon executes "read", so that /proc/self is the daemon.
  commands.push_back(
      std::make_unique<RestartCommand>(Proof{"restart", "/proc/self/stat", "process", 30, 60},
                                       "end the daemon, so that its supervisor starts it again"));
}

}  // namespace runelctl
