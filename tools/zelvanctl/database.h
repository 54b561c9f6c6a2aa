// A connection to the database through ODBC, with bound values and transactions.
//
// Threads  One thread.
// Memory   Values are wiped when they go, since keys and PINs are among them.
#pragma once

#include <sql.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "zelvanctl/failure.h"
#include "zelvanctl/secret.h"

namespace zelvan::ctl {

// What the driver reported.
class DatabaseError : public Failure {
 public:
  DatabaseError(ExitCode code, const std::string& message, std::string state)
      : Failure(code, message), state_(std::move(state)) {}

  [[nodiscard]] const std::string& state() const { return state_; }  // SQLSTATE, five characters

  // True when a row with that key exists already.
  [[nodiscard]] bool duplicate() const;

  // True when the login has no right to do it.
  [[nodiscard]] bool forbidden() const;

 private:
  std::string state_;
};

// A value for a "?" of a statement: NULL, a whole number or text.
class Parameter {
 public:
  Parameter(std::nullptr_t) {}
  Parameter(std::int64_t number) : value_(number) {}
  Parameter(int number) : value_(std::int64_t{number}) {}
  Parameter(std::string_view text) : value_(Secret(text)) {}
  Parameter(const std::string& text) : value_(Secret(text)) {}
  Parameter(const char* text) : value_(Secret(text)) {}
  Parameter(const Secret& text) : value_(text) {}
  template <typename T>
  Parameter(const std::optional<T>& value) {
    if (value) *this = Parameter(*value);
  }

  [[nodiscard]] const std::int64_t* number() const { return std::get_if<std::int64_t>(&value_); }
  [[nodiscard]] const Secret* text() const { return std::get_if<Secret>(&value_); }

 private:
  std::variant<std::monostate, std::int64_t, Secret> value_;
};

using Parameters = std::vector<Parameter>;

// One row of a result; every column is text or NULL.
class Row {
 public:
  void add(std::optional<Secret> cell) { cells_.push_back(std::move(cell)); }
  [[nodiscard]] std::size_t size() const { return cells_.size(); }
  [[nodiscard]] std::optional<std::string> text(std::size_t column) const;
  [[nodiscard]] const std::optional<Secret>& secret(std::size_t column) const { return cells_.at(column); }
  // Returns the column as a number, 0 for NULL and for text that is none.
  [[nodiscard]] std::int64_t number(std::size_t column) const;

 private:
  std::vector<std::optional<Secret>> cells_;
};

// A column of a table as the driver describes it.
struct ColumnDescription {
  enum class Kind { text, padded_text, integer, decimal, date, other };
  std::string name;
  Kind kind = Kind::other;
  std::uint64_t size = 0;  // longest text in characters; 0 when the driver does not tell
};

class Database {
 public:
  // Connects.  Throws DatabaseError (kUnreachable).
  //   dsn, uid, pwd  NUL-terminated
  Database(const char* dsn, const char* uid, const char* pwd);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  // Returns the name of the database system, such as "SQLite".
  [[nodiscard]] std::string dbms_name() const;

  // Runs a statement and returns all rows.  Throws DatabaseError.
  std::vector<Row> query(const std::string& sql, const Parameters& parameters = {});

  // Runs a statement; returns the number of rows that it changed.  Throws DatabaseError.
  std::int64_t execute(const std::string& sql, const Parameters& parameters = {});

  // Returns the columns of a table as the catalogue tells them, also those that a "select *" leaves out and those that
  // this login may not read; none when there is no such table.
  //   schema  where the table is; empty: there is one place only
  std::vector<ColumnDescription> columns(const std::string& table, const std::string& schema = {});

  // Returns the groups of columns that the database keeps unique, as its catalogue tells.
  std::vector<std::vector<std::string>> unique_indexes(const std::string& table, const std::string& schema = {});

 private:
  friend class Transaction;
  void begin();
  void commit();
  void rollback() noexcept;
  void leave_transaction() noexcept;

  SQLHENV environment_ = SQL_NULL_HENV;
  SQLHDBC connection_ = SQL_NULL_HDBC;
  bool connected_ = false;
};

// All or nothing: what is not committed is taken back at the end of the scope.
class Transaction {
 public:
  explicit Transaction(Database& database);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  // Makes everything since the beginning permanent.  Throws DatabaseError; then nothing is.
  void commit();

 private:
  Database& database_;
  bool open_ = true;
};

}  // namespace zelvan::ctl
