// SPDX-License-Identifier: Apache-2.0
#include "gateway/store/schema.h"

#include <cstddef>
#include <cstdint>

namespace runelgw {

namespace {

constexpr const char* kVersionTable = "runelgw_schema";

std::string forDialect(std::string statement, Dialect dialect) {
  const std::string word = "$KEY";
  // In SQLite only this type makes the id the key of the table itself.
  const std::string type =
      dialect == Dialect::sqlite ? "INTEGER PRIMARY KEY" : "BIGINT PRIMARY KEY";
  for (std::size_t at = statement.find(word); at != std::string::npos; at = statement.find(word)) {
    statement.replace(at, word.size(), type);
  }
  return statement;
}

std::string countOfTables(Dialect dialect, const std::string& name) {
  std::string sql = dialect == Dialect::sqlite
                        ? "SELECT count(*) FROM sqlite_master WHERE type = 'table'"
                        : "SELECT count(*) FROM pg_catalog.pg_tables"
                          " WHERE schemaname = current_schema()";
  if (!name.empty()) {
    sql += (dialect == Dialect::sqlite ? " AND name = '" : " AND tablename = '") + name + "'";
  }
  return sql;
}

Database::Failure writeVersion(Database& database, std::size_t version) {
  if (version == 1) {
    return database.executeOnce(std::string("INSERT INTO ") + kVersionTable +
                                " (name, version) VALUES ('schema', 1)");
  }
  return database.executeOnce(std::string("UPDATE ") + kVersionTable +
                              " SET version = " + std::to_string(version));
}

Database::Failure migrateOnce(Database& database, const Migration& migration, std::size_t version,
                              const std::function<void()>& probe) {
  if (Database::Failure failure = database.begin()) {
    return failure;
  }
  std::vector<std::string> statements;
  if (version == 1) {
    statements.push_back(std::string("CREATE TABLE ") + kVersionTable +
                         " (name TEXT PRIMARY KEY, version BIGINT NOT NULL)");
  }
  statements.insert(statements.end(), migration.begin(), migration.end());
  for (const std::string& statement : statements) {
    if (Database::Failure failure =
            database.executeOnce(forDialect(statement, database.dialect()))) {
      return failure;
    }
    if (probe) {
      probe();
    }
  }
  if (Database::Failure failure = writeVersion(database, version)) {
    return failure;
  }
  if (probe) {
    probe();
  }
  return database.commit();
}

}  // namespace

const std::vector<Migration>& migrations() {
  static const std::vector<Migration> kMigrations = {
      {
          R"(CREATE TABLE counters (name TEXT PRIMARY KEY, next BIGINT NOT NULL))",
          R"(CREATE TABLE devices (id $KEY, hostid TEXT NOT NULL, name TEXT NOT NULL,
             decision TEXT NOT NULL, address TEXT NOT NULL, port BIGINT NOT NULL,
             certificate TEXT NOT NULL, pin_address TEXT NOT NULL, pin_certificate TEXT NOT NULL,
             first_seen BIGINT NOT NULL, last_seen BIGINT NOT NULL,
             connected_since BIGINT NOT NULL, device_type TEXT NOT NULL, kernel TEXT NOT NULL,
             free_bytes BIGINT, agent BIGINT NOT NULL, connects BIGINT NOT NULL,
             losses BIGINT NOT NULL, last_loss BIGINT NOT NULL, last_loss_reason TEXT NOT NULL))",
          R"(CREATE TABLE tags (device BIGINT NOT NULL REFERENCES devices (id) ON DELETE CASCADE,
             name TEXT NOT NULL, value TEXT NOT NULL, rule TEXT NOT NULL, PRIMARY KEY (device,
             name)))",
          R"(CREATE TABLE tag_rules (name TEXT PRIMARY KEY, query TEXT NOT NULL,
             tag TEXT NOT NULL, value TEXT NOT NULL))",
          R"(CREATE TABLE saved_groups (name TEXT PRIMARY KEY, query TEXT NOT NULL))",
          R"(CREATE TABLE access_list (kind TEXT NOT NULL, value TEXT NOT NULL,
             allow BIGINT NOT NULL, created BIGINT NOT NULL, note TEXT NOT NULL,
             PRIMARY KEY (kind, value)))",
          R"(CREATE TABLE tokens (id $KEY, name TEXT NOT NULL, hash TEXT NOT NULL,
             role TEXT NOT NULL, device_groups TEXT NOT NULL, kinds TEXT NOT NULL,
             created BIGINT NOT NULL, expires BIGINT NOT NULL, last_used BIGINT NOT NULL,
             revoked BIGINT NOT NULL))",
          R"(CREATE TABLE settings (name TEXT PRIMARY KEY, value TEXT NOT NULL))",
          R"(CREATE TABLE history (id $KEY, device BIGINT NOT NULL, time BIGINT NOT NULL,
             event TEXT NOT NULL, reason TEXT NOT NULL))",
          R"(CREATE INDEX history_device ON history (device, id))",
          R"(CREATE INDEX history_time ON history (time))",
          R"(CREATE TABLE audit (id $KEY, time BIGINT NOT NULL, who TEXT NOT NULL,
             role TEXT NOT NULL, origin TEXT NOT NULL, what TEXT NOT NULL, devices TEXT NOT NULL,
             outcome TEXT NOT NULL, detail TEXT NOT NULL))",
          R"(CREATE INDEX audit_time ON audit (time))",
          R"(CREATE TABLE clauses (id $KEY, device BIGINT NOT NULL, time BIGINT NOT NULL,
             clause TEXT NOT NULL))",
          R"(CREATE INDEX clauses_device ON clauses (device, id))",
          R"(CREATE INDEX clauses_time ON clauses (time))",
          R"(CREATE TABLE operations (id $KEY, time BIGINT NOT NULL, who TEXT NOT NULL,
             kind TEXT NOT NULL, query TEXT NOT NULL, request TEXT NOT NULL, state TEXT NOT NULL,
             ended BIGINT NOT NULL, devices BIGINT NOT NULL, answered BIGINT NOT NULL,
             not_run BIGINT NOT NULL, unknown BIGINT NOT NULL))",
          R"(CREATE INDEX operations_time ON operations (time))",
          R"(CREATE TABLE results (operation BIGINT NOT NULL REFERENCES operations (id) ON DELETE CASCADE,
             device BIGINT NOT NULL, time BIGINT NOT NULL, outcome TEXT NOT NULL,
             reason TEXT NOT NULL, message TEXT NOT NULL, output TEXT NOT NULL,
             PRIMARY KEY (operation, device)))",
          R"(CREATE INDEX results_device ON results (device))",
          R"(CREATE INDEX results_output ON results (time) WHERE output <> '')",
      },
  };
  return kMigrations;
}

std::string newerVersion(std::int64_t version, std::size_t known) {
  return "its schema has version " + std::to_string(version) +
         ", and this program knows only versions up to " + std::to_string(known) +
         "; use the program that made it, or a newer one";
}

std::optional<std::string> readVersion(Database& database, std::int64_t& version) {
  version = 0;
  std::optional<std::int64_t> count;
  if (Database::Failure failure =
          database.number(countOfTables(database.dialect(), kVersionTable), count)) {
    return failure->text;
  }
  if (count.value_or(0) == 0) {
    if (Database::Failure failure = database.number(countOfTables(database.dialect(), ""), count)) {
      return failure->text;
    }
    if (count.value_or(0) != 0) {
      return "it has the tables of another program; name an empty database";
    }
    return {};
  }
  std::optional<std::int64_t> stored;
  if (Database::Failure failure =
          database.number(std::string("SELECT version FROM ") + kVersionTable, stored)) {
    return failure->text;
  }
  if (!stored || *stored < 1) {
    return "it has no valid schema version; restore a backup";
  }
  version = *stored;
  return {};
}

std::optional<std::string> migrate(Database& database, const std::vector<Migration>& steps,
                                   const std::function<void()>& probe) {
  std::int64_t version = 0;
  if (std::optional<std::string> error = readVersion(database, version)) {
    return error;
  }
  if (version > static_cast<std::int64_t>(steps.size())) {
    return newerVersion(version, steps.size());
  }
  for (auto step = static_cast<std::size_t>(version); step < steps.size(); ++step) {
    if (Database::Failure failure = migrateOnce(database, steps[step], step + 1, probe)) {
      database.rollback();
      return "its schema cannot be changed to version " + std::to_string(step + 1) + ": " +
             failure->text;
    }
  }
  return {};
}

}  // namespace runelgw
