// SPDX-License-Identifier: Apache-2.0
#include "gateway/store/database.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <deque>
#include <exception>
#include <unordered_map>
#include <utility>

#include <soci/postgresql/soci-postgresql.h>
#include <soci/soci.h>
#include <soci/sqlite3/soci-sqlite3.h>

namespace runelgw {

namespace {

// A place whose address the statement keeps.
struct Cell {
  bool isText = false;
  long long number = 0;
  std::string text;
  soci::indicator indicator = soci::i_ok;

  void set(Value& value) {
    indicator = value.isNull ? soci::i_null : soci::i_ok;
    number = value.number;
    text = std::move(value.text);
  }
};

using Cells = std::deque<Cell>;

void bindCells(soci::statement& statement, Cells& cells) {
  for (Cell& cell : cells) {
    if (cell.isText) {
      statement.exchange(soci::use(cell.text, cell.indicator));
    } else {
      statement.exchange(soci::use(cell.number, cell.indicator));
    }
  }
}

Cells cellsFor(const std::vector<Value>& values) {
  Cells cells;
  for (Value value : values) {
    cells.emplace_back().isText = value.isText;
    cells.back().set(value);
  }
  return cells;
}

// The text of the database in one line.
std::string oneLine(const std::string& text) {
  std::string line;
  for (const char c : text) {
    if (std::isspace(static_cast<unsigned char>(c)) == 0) {
      line += c;
    } else if (!line.empty() && line.back() != ' ') {
      line += ' ';
    }
  }
  while (!line.empty() && (line.back() == ' ' || line.back() == '.')) {
    line.pop_back();
  }
  return line;
}

Trouble troubleOfSqlite(int result) {
  switch (result & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_INTERRUPT:
    case SQLITE_NOMEM:
      return Trouble::busy;
    case SQLITE_FULL:
    case SQLITE_IOERR:
      return Trouble::full;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_FORMAT:
      return Trouble::corrupt;
    case SQLITE_PERM:
    case SQLITE_READONLY:
    case SQLITE_CANTOPEN:
    case SQLITE_AUTH:
      return Trouble::permission;
    default:
      return Trouble::refused;
  }
}

Trouble troubleOfState(const std::string& state) {
  static constexpr std::array<std::pair<const char*, Trouble>, 12> kStates = {{
      {"08", Trouble::lost},        // the connection
      {"57P", Trouble::lost},       // the server ends or starts
      {"53300", Trouble::lost},     // too many connections
      {"25006", Trouble::lost},     // a standby server, which another one replaces
      {"40", Trouble::busy},        // deadlock, serialization
      {"55P03", Trouble::busy},     // lock timeout
      {"57014", Trouble::busy},     // statement timeout
      {"53", Trouble::full},        // no space, no memory
      {"58", Trouble::full},        // input or output
      {"XX", Trouble::corrupt},     // damaged
      {"28", Trouble::permission},  // password
      {"42501", Trouble::permission},
  }};
  for (const auto& [prefix, trouble] : kStates) {
    if (state.rfind(prefix, 0) == 0) {
      return trouble;
    }
  }
  return Trouble::refused;
}

DatabaseProblem problemOf(const soci::soci_error& error) {
  DatabaseProblem problem{Trouble::refused, oneLine(error.get_error_message())};
  if (const auto* file = dynamic_cast<const soci::sqlite3_soci_error*>(&error)) {
    problem.trouble = troubleOfSqlite(file->result());
  } else if (const auto* server = dynamic_cast<const soci::postgresql_soci_error*>(&error)) {
    problem.trouble = troubleOfState(server->sqlstate());
  }
  return problem;
}

// A URI takes further options as its query, a connection string as words.
std::string withOption(const std::string& where, const std::string& name,
                       const std::string& value) {
  if (where.find(name + "=") != std::string::npos) {
    return where;
  }
  if (where.find("://") == std::string::npos) {
    return where + " " + name + "=" + value;
  }
  return where + (where.find('?') == std::string::npos ? "?" : "&") + name + "=" + value;
}

}  // namespace

Value Value::of(std::int64_t number) {
  Value value;
  value.number = number;
  return value;
}

Value Value::of(std::string text) {
  Value value;
  value.isText = true;
  value.text = std::move(text);
  return value;
}

struct Database::Prepared {
  Prepared(soci::session& session, const std::string& sql, const std::vector<Value>& values)
      : statement(session) {
    for (const Value& value : values) {
      cells.emplace_back().isText = value.isText;
    }
    bindCells(statement, cells);
    statement.alloc();
    statement.prepare(sql);
    statement.define_and_bind();
  }

  Cells cells;  // before the statement, which refers to them
  soci::statement statement;
};

struct Database::Connection {
  Connection(const soci::backend_factory& factory, const std::string& where)
      : session(factory, where) {}

  soci::session session;
  Dialect dialect = Dialect::sqlite;
  bool inTransaction = false;
  std::unordered_map<std::string, std::unique_ptr<Prepared>>
      prepared;  // destroyed before `session`
};

Database::Database() = default;
Database::~Database() {
  close();
}

Database::Failure Database::guarded(const std::function<void()>& action) {
  if (!connection_) {
    return DatabaseProblem{Trouble::lost, "not connected"};
  }
  return caught(action);
}

Database::Failure Database::caught(const std::function<void()>& action) {
  try {
    action();
    return {};
  } catch (const soci::soci_error& error) {
    return problemOf(error);
  } catch (const std::exception& error) {
    return DatabaseProblem{Trouble::refused, oneLine(error.what())};
  }
}

Database::Failure Database::connect(Dialect dialect, const std::string& where) {
  close();
  return caught([&] {
    const soci::backend_factory& factory =
        dialect == Dialect::sqlite ? static_cast<const soci::backend_factory&>(soci::sqlite3)
                                   : static_cast<const soci::backend_factory&>(soci::postgresql);
    connection_ = std::make_unique<Connection>(factory, where);
    connection_->dialect = dialect;
  });
}

Database::Failure Database::openFile(const std::string& path, std::chrono::milliseconds wait) {
  if (Failure failure = connect(Dialect::sqlite, "db=\"" + path + "\"")) {
    return failure;
  }
  // A commit is on the disk before it is reported: FULL also syncs the log of WAL at each commit.
  for (const std::string& pragma :
       {"PRAGMA busy_timeout=" + std::to_string(wait.count()),
        std::string("PRAGMA foreign_keys=ON"), std::string("PRAGMA synchronous=FULL"),
        std::string("PRAGMA journal_size_limit=67108864"),
        std::string("PRAGMA trusted_schema=OFF")}) {
    if (Failure failure = executeOnce(pragma)) {
      close();
      return failure;
    }
  }
  return {};
}

Database::Failure Database::openServer(const std::string& where, std::chrono::milliseconds limit) {
  // A server that became unreachable without a word is given up after 20 s.
  static constexpr std::array<std::pair<const char*, const char*>, 4> kOptions = {
      {{"connect_timeout", "5"},
       {"application_name", "runelgw"},
       {"keepalives_idle", "10"},
       {"tcp_user_timeout", "20000"}}};
  std::string target = where;
  for (const auto& [name, value] : kOptions) {
    target = withOption(target, name, value);
  }
  if (Failure failure = connect(Dialect::postgres, target)) {
    failure->trouble = failure->trouble == Trouble::permission ? failure->trouble : Trouble::lost;
    return failure;
  }
  // A server may be configured to report a commit before it is on the disk.
  for (const std::string& setting :
       {std::string("SET client_encoding = 'UTF8'"), std::string("SET synchronous_commit = on"),
        std::string("SET standard_conforming_strings = on"),
        std::string("SET client_min_messages = warning"),
        "SET statement_timeout = " + std::to_string(limit.count()),
        "SET lock_timeout = " + std::to_string(limit.count())}) {
    if (Failure failure = executeOnce(setting)) {
      close();
      return failure;
    }
  }
  return {};
}

void Database::close() {
  // Destructors of the library may report a lost connection.
  (void)guarded([this] { connection_->prepared.clear(); });
  connection_.reset();
}

bool Database::isOpen() const {
  return connection_ != nullptr;
}

Dialect Database::dialect() const {
  return connection_->dialect;
}

bool Database::works() {
  if (!connection_) {
    return false;
  }
  bool connected = false;
  (void)guarded([&] { connected = connection_->session.is_connected(); });
  return connected;
}

Database::Failure Database::begin() {
  return guarded([this] {
    connection_->session.begin();
    connection_->inTransaction = true;
  });
}

Database::Failure Database::commit() {
  return guarded([this] {
    connection_->session.commit();
    connection_->inTransaction = false;
  });
}

void Database::rollback() {
  if (!connection_ || !connection_->inTransaction) {
    return;
  }
  // Some failures end the transaction by themselves, so that this one fails.
  (void)guarded([this] { connection_->session.rollback(); });
  connection_->inTransaction = false;
}

Database::Prepared& Database::prepared(const std::string& sql, const std::vector<Value>& values) {
  std::unique_ptr<Prepared>& place = connection_->prepared[sql];
  if (!place) {
    place = std::make_unique<Prepared>(connection_->session, sql, values);
  }
  return *place;
}

Database::Failure Database::execute(const std::string& sql, std::vector<Value> values,
                                    std::int64_t* rows) {
  Failure failure = guarded([&] {
    Prepared& statement = prepared(sql, values);
    for (std::size_t i = 0; i < values.size(); ++i) {
      statement.cells[i].set(values[i]);
    }
    statement.statement.execute(true);
    if (rows != nullptr) {
      *rows = statement.statement.get_affected_rows();
    }
  });
  if (failure) {
    // The state of a failed statement is unknown.
    (void)guarded([&] { connection_->prepared.erase(sql); });
  }
  return failure;
}

Database::Failure Database::executeOnce(const std::string& sql) {
  return guarded([&] { connection_->session << sql; });
}

Database::Failure Database::query(const std::string& sql, const std::vector<Value>& values,
                                  const std::string& columns, const TakeRow& take) {
  return guarded([&] {
    Cells parameters = cellsFor(values);
    Cells cells;
    soci::statement statement(connection_->session);
    for (const char column : columns) {
      Cell& cell = cells.emplace_back();
      cell.isText = column == 't';
      if (cell.isText) {
        statement.exchange(soci::into(cell.text, cell.indicator));
      } else {
        statement.exchange(soci::into(cell.number, cell.indicator));
      }
    }
    bindCells(statement, parameters);
    statement.alloc();
    statement.prepare(sql, soci::details::st_one_time_query);
    statement.define_and_bind();
    statement.execute(false);
    std::vector<Value> row(cells.size());
    while (statement.fetch()) {
      for (std::size_t i = 0; i < cells.size(); ++i) {
        row[i].isText = cells[i].isText;
        row[i].isNull = cells[i].indicator == soci::i_null;
        row[i].number = row[i].isNull ? 0 : cells[i].number;
        row[i].text = row[i].isNull ? std::string() : std::move(cells[i].text);
        cells[i].text.clear();
      }
      if (!take(row)) {
        return;
      }
    }
  });
}

Database::Failure Database::number(const std::string& sql, std::optional<std::int64_t>& value) {
  value.reset();
  return query(sql, {}, "n", [&](std::vector<Value>& row) {
    if (!row[0].isNull) {
      value = row[0].number;
    }
    return false;
  });
}

void Database::interrupt() {
  if (connection_ && connection_->dialect == Dialect::sqlite) {
    auto* backend = static_cast<soci::sqlite3_session_backend*>(connection_->session.get_backend());
    sqlite_api::sqlite3_interrupt(backend->conn_);
  }
}

}  // namespace runelgw
