// SPDX-License-Identifier: Apache-2.0
// The bytes that reach /dev/log and standard error, compared with what the C library itself sends.
#include "base/system_log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zell::test {
namespace {

constexpr char kLog[] = "/dev/log";
constexpr char kKept[] = "/dev/log.kept";

// The reader of the log: a socket in place of that of the test's world.
class Reader {
 public:
  explicit Reader(int type = SOCK_DGRAM) : socket_(socket(AF_UNIX, type | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kLog);
    EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
        << std::strerror(errno);
    if (type == SOCK_STREAM) {
      EXPECT_EQ(listen(socket_.get(), 2), 0);
    }
    const timeval limit{60, 0};
    (void)setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  }
  ~Reader() { (void)unlink(kLog); }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // The next datagram.
  std::string next() const {
    std::string text(200000, '\0');
    const ssize_t length = recv(socket_.get(), text.data(), text.size(), 0);
    EXPECT_GE(length, 0) << std::strerror(errno);
    text.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return text;
  }
  [[nodiscard]] bool empty() const {
    char byte = 0;
    return recv(socket_.get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) < 0 && errno == EAGAIN;
  }
  [[nodiscard]] UniqueFd connection() const {
    return UniqueFd(accept(socket_.get(), nullptr, nullptr));
  }

 private:
  UniqueFd socket_;
};

// Collects what is written to standard error.
class StandardError {
 public:
  StandardError() : old_(dup(STDERR_FILENO)) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    reading_.reset(ends[0]);
    const UniqueFd writing(ends[1]);
    (void)fcntl(ends[1], F_SETPIPE_SZ, 1 << 20);
    (void)dup2(writing.get(), STDERR_FILENO);
  }
  ~StandardError() { (void)dup2(old_.get(), STDERR_FILENO); }
  StandardError(const StandardError&) = delete;
  StandardError& operator=(const StandardError&) = delete;

  std::string taken() const {
    std::string text(300000, '\0');
    std::size_t length = 0;
    for (ssize_t got = 1; got > 0; length += got > 0 ? static_cast<std::size_t>(got) : 0) {
      got = read(reading_.get(), text.data() + length, text.size() - length);
    }
    text.resize(length);
    return text;
  }

 private:
  UniqueFd old_;
  UniqueFd reading_;
};

class SystemLogTest : public ::testing::Test {
 protected:
  SystemLogTest() { moved_ = std::rename(kLog, kKept) == 0; }
  ~SystemLogTest() override {
    if (moved_) {
      (void)std::rename(kKept, kLog);
    }
  }

  SystemLog log_;

 private:
  bool moved_ = false;
};

constexpr int kFacility = LOG_LOCAL5;

#ifdef __GLIBC__

// The C library's own functions: those of the test program are replaced.
template <typename Function>
Function libc(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}
void libcOpen(const char* ident, int options, int facility) {
  libc<void (*)(const char*, int, int)>("openlog")(ident, options, facility);
}
void libcLog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  libc<void (*)(int, const char*, va_list)>("vsyslog")(priority, format, args);
  va_end(args);
}
void libcClose() {
  libc<void (*)()>("closelog")();
}

struct Case {
  const char* ident;
  int options;
  int facility;
  int priority;
  std::string text;
};

class AsGlibcTest : public SystemLogTest, public ::testing::WithParamInterface<Case> {
 protected:
  ~AsGlibcTest() override { libcClose(); }

  // The lines of both, with what they copied to standard error. They may be in different seconds.
  std::pair<std::string, std::string> both(const Reader& reader, const Case& line) {
    const StandardError error;
    libcOpen(nullptr, 0, kFacility);
    log_.open(nullptr, 0, kFacility);
    libcOpen(line.ident, line.options, line.facility);
    libcLog(line.priority, "%s", line.text.c_str());
    const std::string expected = reader.next() + "|" + error.taken();
    log_.open(line.ident, line.options, line.facility);
    log_.write(line.priority, line.text);
    return {expected, reader.next() + "|" + error.taken()};
  }
};

TEST_P(AsGlibcTest, SendsTheSameBytes) {
  const Reader reader;
  std::pair<std::string, std::string> lines;
  for (int attempt = 0; attempt < 20 && (attempt == 0 || lines.first != lines.second); ++attempt) {
    lines = both(reader, GetParam());
  }
  EXPECT_EQ(lines.first, lines.second);
  EXPECT_THAT(lines.first, ::testing::HasSubstr(GetParam().text));
  EXPECT_TRUE(reader.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Lines, AsGlibcTest,
    ::testing::Values(
        Case{"runeld", 0, kFacility, LOG_INFO, "(12) text"},
        Case{"runeld", 0, kFacility, LOG_CRIT, ""},
        Case{"runeld", LOG_PERROR, kFacility, LOG_DEBUG, "copied"},
        Case{"runeld", LOG_PERROR, kFacility, LOG_ERR, "with a line end\n"},
        Case{"runeld", LOG_PERROR, kFacility, LOG_ERR, ""},
        Case{"runeld", LOG_PERROR | LOG_PID, kFacility, LOG_ERR, "with the number of the process"},
        Case{"other", LOG_PID | LOG_NDELAY, LOG_LPR, LOG_WARNING, "percent: %s %n %%"},
        Case{"runeld", 0, kFacility, LOG_INFO | LOG_CRON, "its own facility"},
        Case{"runeld", 0, -1, LOG_INFO, "an invalid facility changes nothing"},
        Case{"", 0, kFacility, LOG_INFO, "no ident"},
        Case{"runeld", 0, kFacility, LOG_INFO, "\xff\x01 bytes \t"},
        Case{"runeld", LOG_PERROR, kFacility, LOG_NOTICE, std::string(990, 'x')},
        Case{"runeld", LOG_PERROR, kFacility, LOG_NOTICE, std::string(1024, 'x')},
        Case{"runeld", LOG_PERROR, kFacility, LOG_NOTICE, std::string(131072, 'x')}));

TEST_F(AsGlibcTest, ClosingTheLogForgetsTheIdent) {
  const Reader reader;
  std::pair<std::string, std::string> lines;
  for (int attempt = 0; attempt < 20 && (attempt == 0 || lines.first != lines.second); ++attempt) {
    libcOpen("runeld", 0, kFacility);
    libcClose();
    libcLog(LOG_INFO, "late");
    log_.open("runeld", 0, kFacility);
    log_.close();
    log_.write(LOG_INFO, "late");
    lines.first = reader.next();
    lines.second = reader.next();
  }
  EXPECT_EQ(lines.first, lines.second);
  EXPECT_THAT(lines.second, ::testing::EndsWith(" unit_base: late"));
}

#endif

TEST_F(SystemLogTest, SendsOneDatagramInTheFormOfTheLog) {
  const Reader reader;
  log_.open("runeld", 0, LOG_LOCAL5);
  log_.write(LOG_INFO, "(7) text");
  EXPECT_THAT(reader.next(), ::testing::MatchesRegex(
                                 "<174>[A-Z][a-z][a-z] [ 123][0-9] ..:..:.. runeld: \\(7\\) text"));
}

TEST_F(SystemLogTest, SendsALineOf128KibibytesWhole) {
  const Reader reader;
  log_.open("runeld", 0, LOG_LOCAL5);
  log_.write(LOG_DEBUG, std::string(131072, 'y'));
  EXPECT_THAT(reader.next(), ::testing::EndsWith(" runeld: " + std::string(131072, 'y')));
}

TEST_F(SystemLogTest, ConnectsAgainAfterARestartOfTheReader) {
  log_.open("runeld", 0, LOG_LOCAL5);
  {
    const Reader first;
    log_.write(LOG_INFO, "one");
    EXPECT_THAT(first.next(), ::testing::EndsWith("one"));
  }
  const Reader second;
  log_.write(LOG_INFO, "two");
  EXPECT_THAT(second.next(), ::testing::EndsWith(": two"));
  EXPECT_TRUE(second.empty());
}

TEST_F(SystemLogTest, LosesOnlyTheLinesWithoutAReader) {
  log_.open("runeld", 0, LOG_LOCAL5);
  log_.write(LOG_INFO, "before");
  const Reader reader;
  log_.write(LOG_INFO, "after");
  EXPECT_THAT(reader.next(), ::testing::EndsWith(": after"));
  EXPECT_TRUE(reader.empty());
}

TEST_F(SystemLogTest, ConnectsAtOnceOnlyIfAsked) {
  const auto used = [] {
    const UniqueFd probe(open("/dev/null", O_RDONLY | O_CLOEXEC));
    return probe.get();
  };
  const Reader reader;
  const int before = used();
  log_.open("runeld", 0, LOG_LOCAL5);
  EXPECT_EQ(used(), before);
  log_.open("runeld", LOG_NDELAY, LOG_LOCAL5);
  EXPECT_EQ(used(), before + 1);
  EXPECT_EQ(fcntl(before, F_GETFD), FD_CLOEXEC);
  log_.close();
  EXPECT_EQ(used(), before);
}

TEST_F(SystemLogTest, EndsALineInAStreamWithAZeroByte) {
  const Reader reader(SOCK_STREAM);
  log_.open("runeld", LOG_NDELAY, LOG_LOCAL5);
  const UniqueFd connection = reader.connection();
  log_.write(LOG_INFO, "one");
  char text[100] = "";
  const ssize_t length = recv(connection.get(), text, sizeof text, 0);
  ASSERT_GT(length, 0);
  EXPECT_THAT(std::string(text, static_cast<std::size_t>(length)),
              ::testing::EndsWith(std::string(" runeld: one\0", 13)));
}

TEST_F(SystemLogTest, WritesToTheConsoleWithoutAReaderOnlyIfAsked) {
  const auto console = [] {
    std::ifstream file("/dev/console");
    return std::string(std::istreambuf_iterator<char>(file), {});
  };
  ASSERT_NE(access("/dev/console", F_OK), 0) << "the test's world has no console";
  const UniqueFd made(creat("/dev/console", 0600));
  log_.open("runeld", 0, LOG_LOCAL5);
  log_.write(LOG_INFO, "not there");
  EXPECT_EQ(console(), "");
  log_.open("runeld", LOG_CONS, LOG_LOCAL5);
  log_.write(LOG_INFO, "there");
  EXPECT_EQ(console(), "runeld: there\r\n");
  (void)unlink("/dev/console");
}

}  // namespace
}  // namespace zell::test
