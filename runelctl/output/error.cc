// SPDX-License-Identifier: Apache-2.0
#include "output/error.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string_view>
#include <utility>

#include <sys/wait.h>

#include "protocol/protocol.h"

namespace runelctl {
namespace {

constexpr char kPortHint[] = "check the port: devices listen on 5111";
static_assert(zell::contains(kPortHint, zell::kDevicePort));

Fault faultOf(const runel::Error& error) {
  if (error.cause() == runel::Cause::cancelled) {
    return Fault::cancelled;
  }
  switch (error.kind()) {
    case runel::Kind::device:
      return Fault::task;
    case runel::Kind::program:
      return error.cause() == runel::Cause::programTimeout ? Fault::timeLimit : Fault::program;
    case runel::Kind::local:
      return Fault::local;
    case runel::Kind::timeout:
      return error.cause() == runel::Cause::connectTimeout ? Fault::unreachable : Fault::timedOut;
    case runel::Kind::link:
      break;
  }
  if (error.cause() == runel::Cause::closed) {
    return Fault::lost;
  }
  return error.transient() ? Fault::unreachable : Fault::protocol;
}

std::string lossHint(int number) {
  return number == ETIMEDOUT ? "check that the device is on, and its network" : "";
}

std::string connectHint(int number) {
  if (number == ECONNREFUSED) {
    return "check that runeld is running on the device";
  }
  if (number == EHOSTUNREACH || number == ENETUNREACH) {
    return "check the address, and that the device is on";
  }
  return "";
}

std::string taskHint(int number) {
  switch (number) {
    case ENOSPC:
      return "the device's file system is full: check with runelctl df";
    case EROFS:
      return "the device's file system is mounted read-only";
    case EFBIG:
      return "too large for one answer: use runelctl pull";
    default:
      return "";
  }
}

bool startsWith(std::string_view text, std::string_view start) {
  return text.substr(0, start.size()) == start;
}

std::string gatewayHint(int number) {
  switch (number) {
    case EKEYREJECTED:
      return "check the address, or see --ca-file";
    case EPROTO:
      return "check the address: the gateway may need https or another port";
    default:
      return "check the address, and that the gateway runs";
  }
}

std::string masterHint(int number) {
  switch (number) {
    case 0:
      return "runelctl devices lists the connected devices";
    case EACCES:
      return "check the token: see RUNELCTL_TOKEN and --token-file";
    case EBUSY:
      return "try again later, or with --retry";
    default:
      return "";
  }
}

std::string refusalHint(const runel::Error& error) {
  if (error.kind() == runel::Kind::device) {
    return taskHint(error.number());
  }
  return error.kind() == runel::Kind::local && error.number() == EOPNOTSUPP
             ? "use a job: see exec --stream and runelctl job; or limit the program with --timeout"
             : "";
}

std::string hintFor(const runel::Error& error) {
  switch (error.cause()) {
    case runel::Cause::resolve:
      return "check the host name";
    case runel::Cause::connect:
      return connectHint(error.number());
    case runel::Cause::connectTimeout:
      return "check the address, and that the device is on, or use a larger --connect-timeout";
    case runel::Cause::noMaster:
      return startsWith(error.text(), "no gateway") ? gatewayHint(error.number())
                                                    : "start one: runelctl master";
    case runel::Cause::refusedByMaster:
      return masterHint(error.number());
    case runel::Cause::refused:
      return refusalHint(error);
    case runel::Cause::wrongPeer:
      return kPortHint;
    case runel::Cause::silence:
      return "the device may be busy: check with runelctl ping, or use a larger --io-timeout";
    case runel::Cause::closed:
      return lossHint(error.number());
    case runel::Cause::changed:
    case runel::Cause::checksum:
      return "retry the transfer";
    case runel::Cause::incomplete:
      return "check whether another runelctl sends the same file";
    case runel::Cause::directory:
      return "use -r for directories";
    case runel::Cause::outside:
      return "links below the local directory are not followed";
    default:
      return error.kind() == runel::Kind::device ? taskHint(error.number()) : "";
  }
}

}  // namespace

Error::Error(Fault itsFault, std::string itsText, std::string itsHint, int itsNumber)
    : fault(itsFault),
      what(std::move(itsText)),
      hint(std::move(itsHint)),
      number(itsNumber),
      transient(fault == Fault::unreachable || fault == Fault::lost || fault == Fault::timedOut ||
                fault == Fault::cancelled) {}

Error::Error(const runel::Error& error)
    : fault(faultOf(error)),
      what(error.text()),
      hint(hintFor(error)),
      number(error.number()),
      transient(error.transient() || fault == Fault::cancelled) {}

void Error::advise(const std::string& text) {
  hint += (hint.empty() ? "" : "; ") + text;
}

const char* Error::where() const {
  switch (fault) {
    case Fault::task:
      return "device";
    case Fault::program:
    case Fault::timeLimit:
      return "program";
    case Fault::local:
    case Fault::cancelled:
      return "local";
    default:
      return "link";
  }
}

Error localError(const std::string& name, int number) {
  return runel::Error::local(name, number);
}

std::optional<long> secondsLeft(const runel::LongTask& task) {
  if (task.limit.count() == 0) {
    return std::nullopt;
  }
  const auto left = std::chrono::ceil<std::chrono::seconds>(task.limit - task.waiting);
  return static_cast<long>(std::max(left, std::chrono::seconds(0)).count());
}

std::string continuesText(const runel::LongTask& task) {
  const std::string what = task.task == "exec" ? task.program : "the background program";
  const std::optional<long> left = secondsLeft(task);
  const std::string until = left ? "for up to " + std::to_string(*left) + " s (its limit is " +
                                       std::to_string(task.limit.count()) + " s)"
                                 : "until it ends, without a limit";
  return what + " continues on the device " + until +
         "; the device serves no other request meanwhile";
}

int exitStatusOf(const Error& error) {
  return std::string_view(error.where()) == "link" ? kExitNoConnection : kExitTaskFailed;
}

int exitStatusOf(const runel::Reply& reply) {
  if (!reply.answered()) {
    return exitStatusOf(Error(reply.error()));
  }
  if (reply.ok() || reply.status() == runel::Status::running) {
    return 0;
  }
  if (reply.status() == runel::Status::timeout) {
    return kExitTimeLimit;
  }
  if (reply.state() == runel::ProgramState::signalled) {
    return kExitSignalBase + (reply.signal() & 127);
  }
  if (reply.state() == runel::ProgramState::exited) {
    return WEXITSTATUS(static_cast<unsigned>(reply.result()) << 8U);
  }
  return kExitTaskFailed;
}

}  // namespace runelctl
