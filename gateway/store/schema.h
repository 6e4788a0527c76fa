// SPDX-License-Identifier: Apache-2.0
// The tables, and how an older database becomes the newest one.
#ifndef RUNELGW_STORE_SCHEMA_H_
#define RUNELGW_STORE_SCHEMA_H_

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "gateway/store/database.h"

namespace runelgw {

/// The statements that lead to the next version. "$KEY" stands for the type of an id that is the
/// primary key. Everything else is understood by both kinds of database.
using Migration = std::vector<std::string>;

/// All migrations: the first one makes version 1 from an empty database.
[[nodiscard]] const std::vector<Migration>& migrations();

/// Brings the schema of @p database to the last of @p steps, each version in one transaction.
/// Returns one sentence if that fails or is not possible, after which the database has the last
/// complete version.
/// @p probe is called after each statement; it may be empty.
[[nodiscard]] std::optional<std::string> migrate(Database& database,
                                                 const std::vector<Migration>& steps,
                                                 const std::function<void()>& probe);

/// The version of the schema in @p database; 0: it has no tables.
/// The error is one sentence: tables of another program, or a failure.
[[nodiscard]] std::optional<std::string> readVersion(Database& database, std::int64_t& version);

/// The sentence for a database that a newer program made.
[[nodiscard]] std::string newerVersion(std::int64_t version, std::size_t known);

}  // namespace runelgw

#endif  // RUNELGW_STORE_SCHEMA_H_
