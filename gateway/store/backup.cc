// SPDX-License-Identifier: Apache-2.0
#include "gateway/store/backup.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <runel/error.h>

#include "base/durable_rename.h"
#include "base/scope_guard.h"
#include "gateway/store/schema.h"
#include "gateway/store/tables.h"

namespace runelgw {

namespace {

constexpr const char* kPartial = ".partial";

std::string cannotWrite(const std::string& path, int number) {
  return "cannot write " + path + ": " + runel::systemText(number);
}

// Creates an empty private file without following a link. One that a killed process left is
// replaced.
zell::UniqueFd createPartial(const std::string& name) {
  (void)::unlink(name.c_str());
  return zell::UniqueFd(::open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
}

// Gives the complete file its name.
Sentence publish(const std::string& partial, const std::string& path) {
  const zell::UniqueFd directory(
      ::open(directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  zell::UniqueFd file(::open(partial.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
  if (!directory.valid() || !file.valid()) {
    return cannotWrite(path, errno);
  }
  const zell::RenameResult result =
      zell::renameDurably(file, directory.get(), partial.substr(partial.rfind('/') + 1),
                          path.substr(path.rfind('/') + 1));
  if (result.step != zell::RenameStep::done) {
    return cannotWrite(path, result.error);
  }
  return {};
}

// Checks a copy: its pages, its version, and that its records can be read.
Sentence checkCopy(const std::string& path) {
  StoreSettings settings;
  settings.database = path;
  Database copy;
  Database::Failure failure = copy.openFile(path, settings.lockTimeout);
  failure = failure ? failure : checkPages(copy);
  if (failure) {
    return sentenceFor(settings, *failure);
  }
  std::int64_t version = 0;
  if (Sentence error = readVersion(copy, version)) {
    return nameOf(settings) + ": " + *error;
  }
  if (version == 0) {
    return nameOf(settings) + " is empty; name a backup of a gateway";
  }
  if (version > static_cast<std::int64_t>(migrations().size())) {
    return nameOf(settings) + ": " + newerVersion(version, migrations().size());
  }
  return {};
}

bool copyBytes(int from, int to) {
  std::array<char, 65536> piece{};
  while (true) {
    const ssize_t length = ::read(from, piece.data(), piece.size());
    if (length <= 0) {
      return length == 0;
    }
    for (ssize_t done = 0; done < length;) {
      const ssize_t written =
          ::write(to, piece.data() + done, static_cast<std::size_t>(length - done));
      if (written < 0) {
        return false;
      }
      done += written;
    }
  }
}

// The owner of the replaced file remains the owner: the administrator restores, the gateway's user
// opens the file.
void takeOwner(int fd, const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0 || ::stat(directoryOf(path).c_str(), &status) == 0) {
    (void)!::fchown(fd, status.st_uid, status.st_gid);
  }
}

// Copies @p from to @p to, which will replace @p path.
Sentence copyFile(const std::string& from, const std::string& to, const std::string& path) {
  const zell::UniqueFd source(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  if (!source.valid()) {
    return "cannot read the backup " + from + ": " + runel::systemText(errno);
  }
  struct stat status {};
  if (::fstat(source.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return "the backup " + from + " is not a regular file";
  }
  const zell::UniqueFd target = createPartial(to);
  if (!target.valid() || !copyBytes(source.get(), target.get())) {
    return cannotWrite(to, errno);
  }
  takeOwner(target.get(), path);
  return {};
}

// Moves the log of the replaced file into that file: a log that remained would be applied to the
// new one. The log of a damaged file is removed.
Sentence endLog(const StoreSettings& settings) {
  {
    Database old;
    if (!old.openFile(settings.database, settings.lockTimeout)) {
      std::optional<std::int64_t> busy;
      const Database::Failure failure = old.number("PRAGMA wal_checkpoint(TRUNCATE)", busy);
      if (!failure && busy.value_or(0) != 0) {
        return nameOf(settings) + " is in use by another program; end it first";
      }
    }
  }
  for (const char* suffix : {"-wal", "-shm"}) {
    if (::unlink((settings.database + suffix).c_str()) != 0 && errno != ENOENT) {
      return cannotWrite(settings.database + suffix, errno);
    }
  }
  return {};
}

bool exists(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

Sentence restoreFile(const StoreSettings& settings, const std::string& path) {
  const std::string partial = settings.database + kPartial;
  const zell::ScopeGuard remove([&] { (void)::unlink(partial.c_str()); });
  // The copy is checked, not the original: the check may write beside a file.
  Sentence error = copyFile(path, partial, settings.database);
  error = error ? error : checkCopy(partial);
  if (error) {
    return error;
  }
  if (exists(settings.database)) {
    error = endLog(settings);
  }
  return error ? error : publish(partial, settings.database);
}

}  // namespace

std::string serverBackupHint(const std::string& program) {
  return "a PostgreSQL database is not copied by the gateway; use " + program;
}

Sentence writeBackup(Database& database, const std::string& path) {
  const std::string partial = path + kPartial;
  if (!createPartial(partial).valid()) {
    return cannotWrite(path, errno);
  }
  const zell::ScopeGuard remove([&] { (void)::unlink(partial.c_str()); });
  if (Database::Failure failure = database.execute("VACUUM INTO :v0", {Value::of(partial)})) {
    return "cannot write " + path + ": " + failure->text;
  }
  if (Sentence error = checkCopy(partial)) {
    return error;
  }
  return publish(partial, path);
}

runel::Result<void> restoreDatabase(const StoreSettings& settings, const std::string& path) {
  const StoreSettings target = resolvedSettings(settings);
  Sentence error;
  zell::UniqueFd lock;
  if (isServer(target)) {
    error = serverBackupHint("pg_restore");
  } else {
    error = lockFile(target.database, lock);
    error = error ? error : restoreFile(target, path);
  }
  if (error) {
    return runel::Error(runel::Kind::local, runel::Cause::other, *error);
  }
  return {};
}

}  // namespace runelgw
