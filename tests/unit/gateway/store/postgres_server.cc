// SPDX-License-Identifier: Apache-2.0
#include "unit/gateway/store/postgres_server.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "gateway/store/database.h"

namespace runelgw::test {

namespace {

constexpr const char* kUser = "postgres";

// The directory of the newest server; its programs are not in PATH.
std::string findPrograms() {
  std::vector<std::string> found;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/usr/lib/postgresql", error)) {
    if (std::filesystem::exists(entry.path() / "bin/initdb")) {
      found.push_back(entry.path() / "bin");
    }
  }
  return found.empty() ? "" : *std::max_element(found.begin(), found.end());
}

// Starts a program as the user of the server, which refuses to run as root.
pid_t startAs(const std::vector<std::string>& words, const std::string& log) {
  const passwd* user = ::getpwnam(kUser);
  std::vector<char*> arguments;
  for (const std::string& word : words) {
    arguments.push_back(const_cast<char*>(word.c_str()));
  }
  arguments.push_back(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int output = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666);
    ::dup2(output, 1);
    ::dup2(output, 2);
    if (user == nullptr || ::setgroups(0, nullptr) != 0 || ::setgid(user->pw_gid) != 0 ||
        ::setuid(user->pw_uid) != 0 || ::chdir("/") != 0) {
      ::_exit(126);
    }
    ::prctl(PR_SET_PDEATHSIG, SIGQUIT);
    ::execv(arguments[0], arguments.data());
    ::_exit(127);
  }
  return pid;
}

int waitFor(pid_t pid) {
  int status = 0;
  ::waitpid(pid, &status, 0);
  return status;
}

}  // namespace

PostgresServer& PostgresServer::shared() {
  static PostgresServer server;
  return server;
}

PostgresServer::PostgresServer() : programs_(findPrograms()) {
  const char* parent = std::getenv("TMPDIR");
  directory_ = std::string(parent == nullptr ? "/tmp" : parent) + "/postgres-XXXXXX";
  EXPECT_NE(::mkdtemp(directory_.data()), nullptr);
  const passwd* user = ::getpwnam(kUser);
  EXPECT_TRUE(user != nullptr && !programs_.empty()) << "the package postgresql is missing";
  if (user == nullptr || programs_.empty()) {
    return;
  }
  EXPECT_EQ(::chown(directory_.c_str(), user->pw_uid, user->pw_gid), 0);
  const pid_t creator =
      startAs({programs_ + "/initdb", "-D", directory_ + "/data", "-U", kUser, "-A", "trust", "-E",
               "UTF8", "--locale=C", "--no-sync", "--wal-segsize=1"},
              directory_ + "/log");
  EXPECT_EQ(waitFor(creator), 0);
  start();
}

PostgresServer::~PostgresServer() {
  crash();
  std::error_code error;
  std::filesystem::remove_all(directory_, error);
}

void PostgresServer::start() {
  // The tests end clients and the server, not the machine: nothing needs to reach a disk.
  pid_ = startAs(
      {programs_ + "/postgres", "-D", directory_ + "/data", "-k", directory_, "-c",
       "listen_addresses=", "-c", "fsync=off", "-c", "shared_buffers=16MB", "-c", "autovacuum=off",
       "-c", "dynamic_shared_memory_type=mmap", "-c", "max_connections=20"},
      directory_ + "/log");
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  Database database;
  while (database.openServer(uri(), std::chrono::seconds(10))) {
    ASSERT_LT(std::chrono::steady_clock::now(), end) << "the server does not start";
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

void PostgresServer::crash() {
  if (pid_ > 0) {
    ::kill(pid_, SIGQUIT);
    waitFor(pid_);
    pid_ = -1;
  }
}

std::string PostgresServer::uri(const std::string& name, const std::string& user) const {
  return "postgresql:///" + name + "?host=" + directory_ + "&user=" + user;
}

void PostgresServer::execute(const std::string& sql, const std::string& name) const {
  Database database;
  const Database::Failure opened = database.openServer(uri(name), std::chrono::seconds(60));
  ASSERT_FALSE(opened) << opened->text;
  const Database::Failure failure = database.executeOnce(sql);
  ASSERT_FALSE(failure) << failure->text;
}

}  // namespace runelgw::test
