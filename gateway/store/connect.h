// SPDX-License-Identifier: Apache-2.0
// Opens the database of the settings and keeps other gateways out of it.
#ifndef RUNELGW_STORE_CONNECT_H_
#define RUNELGW_STORE_CONNECT_H_

#include <optional>
#include <string>

#include "base/unique_fd.h"
#include "gateway/store/database.h"
#include "gateway/store/schema.h"
#include "gateway/store/sql_store.h"

namespace runelgw {

/// Empty: success. Otherwise one sentence.
using Sentence = std::optional<std::string>;

/// Whether the database is a server's.
[[nodiscard]] bool isServer(const StoreSettings& settings);

/// The directory of the file @p path.
[[nodiscard]] std::string directoryOf(const std::string& path);

/// Follows a link to the file, so that its lock is the same under each of its names.
[[nodiscard]] StoreSettings resolvedSettings(StoreSettings settings);

/// How texts call the database: a path, or without the password "the PostgreSQL database".
[[nodiscard]] std::string nameOf(const StoreSettings& settings);

/// One sentence for @p problem: what failed, and what to do.
[[nodiscard]] std::string sentenceFor(const StoreSettings& settings,
                                      const DatabaseProblem& problem);

/// A lock on the file @p path, which ends with the process or when @p lock is closed. It is a file
/// beside it: the database library has other locks on the database itself.
[[nodiscard]] Sentence lockFile(const std::string& path, zell::UniqueFd& lock);

/// Creates the file of the settings if it is missing, readable for its owner only.
[[nodiscard]] Sentence createFile(const StoreSettings& settings);

/// Connects the writer. A server's database is locked against other gateways as long as the
/// connection exists; a file has its own lock already.
[[nodiscard]] Sentence connectWriter(const StoreSettings& settings, Database& database);

/// Connects a reader, which cannot write.
[[nodiscard]] Database::Failure connectReader(const StoreSettings& settings, Database& database);

/// Checks the pages of a file.
[[nodiscard]] Database::Failure checkPages(Database& database);

}  // namespace runelgw

#endif  // RUNELGW_STORE_CONNECT_H_
