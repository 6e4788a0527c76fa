// SPDX-License-Identifier: Apache-2.0
#include <runel/error.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace runel {
inline namespace v1 {
namespace {

Outcome usualOutcome(Kind kind) {
  return kind == Kind::device || kind == Kind::program ? Outcome::answered : Outcome::notSent;
}

// The errors of a device that is short of memory, descriptors or processes, or busy.
bool isTransient(int number) {
  return number == EAGAIN || number == EBUSY || number == EINTR || number == ENOMEM ||
         number == EMFILE || number == ENFILE;
}

}  // namespace

struct Error::Data {
  Kind kind;
  Cause cause;
  Outcome outcome;
  std::string text;
  int number;
};

Error::Error(Kind kind, Cause cause, std::string text, int number)
    : data_(std::make_shared<const Data>(
          Data{kind, cause, usualOutcome(kind), std::move(text), number})) {}

Error Error::local(const std::string& name, int number) {
  return {Kind::local, Cause::other, name + ": " + systemText(number), number};
}

Kind Error::kind() const {
  return data_->kind;
}

Cause Error::cause() const {
  return data_->cause;
}

Outcome Error::outcome() const {
  return data_->outcome;
}

int Error::number() const {
  return data_->number;
}

const std::string& Error::text() const {
  return data_->text;
}

bool Error::transient() const {
  switch (kind()) {
    case Kind::link:
      return cause() != Cause::protocol && cause() != Cause::wrongPeer &&
             !(cause() == Cause::refusedByMaster && number() == EACCES);
    case Kind::timeout:
      return true;
    case Kind::device:
      return isTransient(number());
    default:
      return false;
  }
}

Error Error::with(Outcome outcome) const {
  Data data = *data_;
  data.outcome = outcome;
  Error changed = *this;
  changed.data_ = std::make_shared<const Data>(std::move(data));
  return changed;
}

const char* nameOf(Kind kind) {
  switch (kind) {
    case Kind::link:
      return "link";
    case Kind::device:
      return "device";
    case Kind::program:
      return "program";
    case Kind::local:
      return "local";
    case Kind::timeout:
      return "timeout";
  }
  return "unknown";
}

const char* nameOf(Outcome outcome) {
  switch (outcome) {
    case Outcome::notSent:
      return "not sent";
    case Outcome::answered:
      return "answered";
    case Outcome::unknown:
      return "sent, outcome unknown";
  }
  return "unknown";
}

std::string systemText(int number) {
  return std::generic_category().message(number);
}

}  // namespace v1
}  // namespace runel
