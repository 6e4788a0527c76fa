// SPDX-License-Identifier: Apache-2.0
#include "connections/plain_slave.h"

#include <algorithm>
#include <cerrno>
#include <string_view>

#include <syslog.h>
#include <unistd.h>

#include <zell/led_control.h>
#include <zell/led_style.h>
#include <zell/string_helpers.h>

#include "base/log.h"

namespace zell {
namespace {

enum Command { kNone, kVersion, kTerminate, kExec, kShell, kSyscall, kQuit = 7 };

struct CommandWord {
  std::string_view word;
  Command code;
};

constexpr CommandWord kCommandWords[] = {
    {"version", kVersion}, {"terminate", kTerminate}, {"exec", kExec},
    {"shell", kShell},     {"syscall", kSyscall},     {"quit", kQuit},
};

constexpr char kProtocolVersion[] = "1";
constexpr int kExecLimit = 300;  // seconds
constexpr int kNoLimit = 0;
constexpr std::size_t kHostNameSize = 1024;
constexpr int kCommandShown = 60;

// Writes @p text with one system call. False when not all of it was written.
bool writeAll(int socket, std::string_view text) {
  return ::write(socket, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// Writes a part of the prompt.
void writePrompt(int socket, std::string_view text) {
  if (!writeAll(socket, text)) {
    logLine(LOG_DEBUG, "prompt: write error, (%d, %m)", errno);
  }
}

}  // namespace

PlainSlave::PlainSlave(int socket) : RunelConnection(socket, kPrompt) {}

bool PlainSlave::inputPending() {
  return false;
}

void PlainSlave::handleMessage(std::string& packet) {
  int code = kNone;
  if (parseCommand(code, packet)) {
    execute(code, packet);
    writeOutput();
  }
  prompt();
}

void PlainSlave::writeOutput() {
  const std::string& output = proxy_->output();
  std::size_t begin = 0;
  while (begin < output.size()) {
    const std::size_t end = std::min(output.find('\n', begin), output.size());
    (void)write(output.substr(begin, end - begin));  // ignored: the loop drops a lost client
    if (!writeAll(socket_, "\n")) {
      logLine(LOG_DEBUG, "handleMessage: write error, (%d, %m)", errno);
    }
    begin = end + 1;
  }
}

void PlainSlave::prompt() {
  char host[kHostNameSize] = {};
  if (gethostname(host, sizeof host) == 0) {
    writePrompt(socket_, host);
  }
  writePrompt(socket_, "$ ");
}

// Refuses only a negative socket. Unlike the relay, the prompt accepts any other number.
int PlainSlave::write(const std::string& text) {
  if (socket_ < 0) {
    logLine(LOG_ERR, "write: socket_ is %d", socket_);
    return -1;
  }
  logLine(LOG_DEBUG, "write: to socket_ = %d, '%s'", socket_,
          trimOutput(text.substr(0, kCommandShown + 1), kCommandShown).c_str());
  return static_cast<int>(::write(socket_, text.data(), text.size()));
}

bool PlainSlave::parseCommand(int& code, std::string& line) {
  trimBogusChars(line);
  trimWhiteSpace(line);
  code = commandCode(firstWord(line));
  if (code == kNone && !line.empty()) {
    code = kShell;
    return true;
  }
  trimFirstWord(line);
  trimWhiteSpace(line);
  return code != kNone;
}

int PlainSlave::commandCode(const std::string& word) {
  for (const CommandWord& command : kCommandWords) {
    if (command.word == word) {
      return command.code;
    }
  }
  return kNone;
}

void PlainSlave::execute(int code, const std::string& args) {
  switch (code) {
    case kVersion:
      if (args != kProtocolVersion) {
        reportError(1, "version: invalid protocol version");
      }
      break;
    case kTerminate:
      logPlain(LOG_DEBUG, "execute: terminate");
      (void)proxy_->kill();  // without a program there is nothing to stop
      break;
    case kExec:
      runProgram(args);
      break;
    case kShell:
      runShell(args);
      break;
    case kSyscall:
      setLeds(args);
      break;
    case kQuit:
      logLine(LOG_DEBUG, "shutdown: not implemented");
      break;
    default:
      break;  // no command has another code
  }
}

void PlainSlave::runProgram(const std::string& args) {
  logLine(LOG_DEBUG, "exec: '%s'", args.c_str());
  const int error = proxy_->exec(args, kExecLimit);
  if (error != 0) {
    reportError(error, "exec: start process failed");
  }
}

void PlainSlave::runShell(const std::string& args) {
  logLine(LOG_DEBUG, "shell: /bin/sh -c '%s'", args.c_str());
  const int error = proxy_->system(args, kNoLimit);
  if (error != 0) {
    reportError(error, "shell: start process failed");
  }
}

// Always logs both lines: existing log searches look for the first one.
void PlainSlave::setLeds(const std::string& args) {
  logLine(LOG_DEBUG, "syscall: not implemented");
  logLine(LOG_DEBUG, "syscall: setting leds to '%s'", args.c_str());
  (void)LedControl::instance().blinkLeds(LedStyle::toEnum(args));  // the prompt sends no reply
}

void PlainSlave::reportError(int code, const std::string& message) {
  const std::string text = "error " + std::to_string(code) + " " + message + "\n";
  logLine(LOG_ERR, "%s", text.c_str());
  (void)write(text);
}

}  // namespace zell
