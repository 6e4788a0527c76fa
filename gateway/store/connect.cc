// SPDX-License-Identifier: Apache-2.0
#include "gateway/store/connect.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <runel/error.h>

namespace runelgw {

namespace {

constexpr mode_t kPrivate = 0600;

std::string cannotOpen(const std::string& path, int number) {
  std::string text = "cannot open the database " + path + ": " + runel::systemText(number);
  if (number == EACCES || number == EPERM) {
    return text + "; it must belong to the user of the gateway";
  }
  if (number == ENOENT || number == ENOTDIR) {
    return text + "; create its directory";
  }
  if (number == ENOSPC || number == EDQUOT) {
    return text + "; free space on the disk (df)";
  }
  return text + "; check the path";
}

// Opens a file for reading and writing. One that is missing is created, private. The administrator
// may be the first to use the database: then the file belongs to the owner of its directory, the
// gateway's user.
zell::UniqueFd openOrCreate(const std::string& path, int flags) {
  const int all = O_RDWR | O_CLOEXEC | O_NOCTTY | flags;
  zell::UniqueFd fd(::open(path.c_str(), all | O_CREAT | O_EXCL, kPrivate));
  if (!fd.valid()) {
    return errno == EEXIST ? zell::UniqueFd(::open(path.c_str(), all)) : std::move(fd);
  }
  struct stat directory {};
  if (::geteuid() == 0 && ::stat(directoryOf(path).c_str(), &directory) == 0) {
    (void)!::fchown(fd.get(), directory.st_uid, directory.st_gid);
  }
  return fd;
}

// The process that wrote its number into the lock file.
std::string holder(int fd) {
  std::array<char, 24> text{};
  const ssize_t length = ::pread(fd, text.data(), text.size() - 1, 0);
  std::string number;
  for (ssize_t i = 0; i < length && text.at(static_cast<std::size_t>(i)) >= '0' &&
                      text.at(static_cast<std::size_t>(i)) <= '9';
       ++i) {
    number += text.at(static_cast<std::size_t>(i));
  }
  return number.empty() ? "" : " (process " + number + ")";
}

// The database library ends the name at a quotation mark.
Sentence checkName(const std::string& path) {
  if (path.empty() || path.find('"') != std::string::npos || path.find('\0') != std::string::npos) {
    return "the path of the database is empty or has a quotation mark: \"" + path +
           "\"; choose another one";
  }
  return {};
}

Database::Failure openLog(Database& database) {
  std::string mode;
  Database::Failure failure =
      database.query("PRAGMA journal_mode=WAL", {}, "t", [&](std::vector<Value>& row) {
        mode = row[0].text;
        return false;
      });
  if (!failure && mode != "wal") {
    return DatabaseProblem{
        Trouble::refused, "its file system does not support a write-ahead log (mode " + mode + ")"};
  }
  return failure;
}

Database::Failure connectFile(const StoreSettings& settings, Database& database) {
  if (Database::Failure failure = database.openFile(settings.database, settings.lockTimeout)) {
    return failure;
  }
  return openLog(database);
}

Database::Failure checkServer(Database& database) {
  std::string encoding;
  std::string schema;
  Database::Failure failure =
      database.query("SELECT current_setting('server_encoding'), coalesce(current_schema(), '')",
                     {}, "tt", [&](std::vector<Value>& row) {
                       encoding = row[0].text;
                       schema = row[1].text;
                       return false;
                     });
  if (!failure && encoding != "UTF8") {
    // Other encodings cannot hold every character.
    return DatabaseProblem{Trouble::refused,
                           "its encoding is " + encoding + "; create one with UTF8"};
  }
  if (!failure && schema.empty()) {
    return DatabaseProblem{Trouble::refused,
                           "its user may use no schema; grant USAGE and CREATE on one"};
  }
  return failure;
}

// A server sees the end of a process with a delay, so an attempt is repeated.
Database::Failure lockServer(const StoreSettings& settings, Database& database) {
  const auto end = std::chrono::steady_clock::now() + settings.lockTimeout;
  while (true) {
    std::optional<std::int64_t> locked;
    // The first key is the gateway's own.
    if (Database::Failure failure = database.number(
            "SELECT CASE WHEN pg_try_advisory_lock(1920298854, hashtext(current_schema()))"
            " THEN 1 ELSE 0 END",
            locked)) {
      return failure;
    }
    if (locked.value_or(0) == 1) {
      return {};
    }
    if (std::chrono::steady_clock::now() >= end) {
      return DatabaseProblem{Trouble::busy, "another gateway uses it; stop that one first"};
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
}

Database::Failure connectServer(const StoreSettings& settings, Database& database) {
  Database::Failure failure = database.openServer(settings.database, settings.statementTimeout);
  failure = failure ? failure : checkServer(database);
  return failure ? failure : lockServer(settings, database);
}

std::string adviceFor(const StoreSettings& settings, Trouble trouble) {
  switch (trouble) {
    case Trouble::lost:
      return "; check that the server runs and can be reached";
    case Trouble::busy:
      return isServer(settings) ? "" : "; end the program that has it locked";
    case Trouble::full:
      return "; check the free space of the disk (df)";
    case Trouble::corrupt:
      return "; restore a backup";
    case Trouble::permission:
      return isServer(settings) ? "; check the user and the password"
                                : "; it must belong to the user of the gateway";
    case Trouble::refused:
      break;
  }
  return "";
}

}  // namespace

std::string directoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

StoreSettings resolvedSettings(StoreSettings settings) {
  if (!isServer(settings)) {
    if (char* path = ::realpath(settings.database.c_str(), nullptr)) {
      settings.database = path;
      ::free(path);  // NOLINT(cppcoreguidelines-no-malloc): realpath allocates
    }
  }
  return settings;
}

bool isServer(const StoreSettings& settings) {
  return settings.database.rfind("postgresql://", 0) == 0 ||
         settings.database.rfind("postgres://", 0) == 0;
}

std::string nameOf(const StoreSettings& settings) {
  return isServer(settings) ? "the PostgreSQL database" : "the database " + settings.database;
}

std::string sentenceFor(const StoreSettings& settings, const DatabaseProblem& problem) {
  return nameOf(settings) + ": " + problem.text + adviceFor(settings, problem.trouble);
}

Sentence lockFile(const std::string& path, zell::UniqueFd& lock) {
  if (Sentence error = checkName(path)) {
    return error;
  }
  const std::string name = path + ".lock";
  zell::UniqueFd fd = openOrCreate(name, O_NOFOLLOW);
  if (!fd.valid()) {
    return cannotOpen(path, errno);
  }
  if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) {
      return cannotOpen(path, errno);
    }
    return "the database " + path + " is in use by another gateway" + holder(fd.get()) +
           "; stop that one first";
  }
  // The number is only for the text above: a full disk does not prevent the lock.
  const std::string number = std::to_string(::getpid()) + "\n";
  if (::ftruncate(fd.get(), 0) == 0) {
    (void)!::pwrite(fd.get(), number.data(), number.size(), 0);
  }
  lock = std::move(fd);
  return {};
}

Sentence createFile(const StoreSettings& settings) {
  const std::string& path = settings.database;
  // Closed before the database library opens the file: closing any descriptor of a file would end
  // its locks.
  const zell::UniqueFd fd = openOrCreate(path, 0);
  if (!fd.valid()) {
    return cannotOpen(path, errno);
  }
  struct stat status {};
  if (::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return "the database " + path + " is not a regular file; choose another path";
  }
  return {};
}

Sentence connectWriter(const StoreSettings& settings, Database& database) {
  const Database::Failure failure =
      isServer(settings) ? connectServer(settings, database) : connectFile(settings, database);
  if (!failure) {
    return {};
  }
  database.close();
  return sentenceFor(settings, *failure);
}

Database::Failure connectReader(const StoreSettings& settings, Database& database) {
  if (isServer(settings)) {
    Database::Failure failure = database.openServer(settings.database, settings.statementTimeout);
    return failure ? failure : database.executeOnce("SET default_transaction_read_only = on");
  }
  Database::Failure failure = database.openFile(settings.database, settings.lockTimeout);
  return failure ? failure : database.executeOnce("PRAGMA query_only=ON");
}

Database::Failure checkPages(Database& database) {
  std::string found;
  Database::Failure failure =
      database.query("PRAGMA quick_check(1)", {}, "t", [&](std::vector<Value>& row) {
        found = row[0].text;
        return false;
      });
  if (!failure && found != "ok") {
    return DatabaseProblem{Trouble::corrupt, "it is damaged (" + found + ")"};
  }
  return failure;
}

}  // namespace runelgw
