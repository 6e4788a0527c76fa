// SPDX-License-Identifier: Apache-2.0
// One connection to a database. Used by one thread at a time; only `interrupt` may run in another
// one. The headers of the database library are included in its source only.
#ifndef RUNELGW_STORE_DATABASE_H_
#define RUNELGW_STORE_DATABASE_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace runelgw {

/// Why a statement failed.
enum class Trouble {
  lost,        ///< the server cannot be reached, or ended the connection: a repetition may succeed
  busy,        ///< another program has a lock: a repetition may succeed
  full,        ///< no space, or a file that cannot be written
  corrupt,     ///< damaged, or not a database
  permission,  ///< no access
  refused,     ///< the statement violates a constraint or is wrong: a repetition fails again
};

/// A failure: its kind and the database's own text in one line.
struct DatabaseProblem {
  Trouble trouble = Trouble::refused;
  std::string text;

  /// Whether the same statements may succeed later.
  [[nodiscard]] bool passing() const {
    return trouble == Trouble::lost || trouble == Trouble::busy;
  }
};

/// The value of a parameter or of a column.
struct Value {
  bool isText = false;
  bool isNull = false;
  std::int64_t number = 0;
  std::string text;

  static Value of(std::int64_t number);
  static Value of(std::string text);
};

/// The kinds of database.
enum class Dialect { sqlite, postgres };

class Database {
 public:
  using Failure = std::optional<DatabaseProblem>;  ///< empty: success
  /// Takes a row; false ends the query.
  using TakeRow = std::function<bool(std::vector<Value>& row)>;

  Database();
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  /// Opens the file @p path, which exists. Waits up to @p wait for the locks of other programs.
  Failure openFile(const std::string& path, std::chrono::milliseconds wait);
  /// Connects to the PostgreSQL server of the URI or connection string @p where. A statement ends
  /// after
  /// @p limit with an error.
  Failure openServer(const std::string& where, std::chrono::milliseconds limit);
  void close();

  [[nodiscard]] bool isOpen() const;
  [[nodiscard]] Dialect dialect() const;
  /// After a failure: whether the connection still works.
  [[nodiscard]] bool works();

  Failure begin();
  Failure commit();
  /// Ends the transaction without its changes. Succeeds without a transaction.
  void rollback();

  /// Executes @p sql with the parameters @p values for :v0, :v1 and so on. Sets @p rows, if given,
  /// to the number of changed rows. Keeps the prepared statement for the next call with the same
  /// text.
  Failure execute(const std::string& sql, std::vector<Value> values = {},
                  std::int64_t* rows = nullptr);
  /// Executes @p sql once; for statements that create tables.
  Failure executeOnce(const std::string& sql);
  /// Gives each row to @p take. @p columns has one letter for each column: 'n' number, 't' text.
  Failure query(const std::string& sql, const std::vector<Value>& values,
                const std::string& columns, const TakeRow& take);
  /// The first column of the first row, or nothing.
  Failure number(const std::string& sql, std::optional<std::int64_t>& value);

  /// Ends the running statement of a file with an error. Any thread may call this while it is open.
  void interrupt();

 private:
  struct Connection;
  struct Prepared;

  Failure connect(Dialect dialect, const std::string& where);
  Failure guarded(const std::function<void()>& action);
  static Failure caught(const std::function<void()>& action);
  Prepared& prepared(const std::string& sql, const std::vector<Value>& values);

  std::unique_ptr<Connection> connection_;
};

}  // namespace runelgw

#endif  // RUNELGW_STORE_DATABASE_H_
