// The statements of one right code over plain ODBC, with nothing around them: what any server on this data source pays.
//
// Threads  A Connection may be shared; a Session belongs to one thread.
#pragma once

#include <sql.h>
#include <sqlext.h>

#include <string>

#include "bench/bench_users.h"

namespace zelvan::bench {

// Owns an environment and a connection to a data source.
class Connection {
 public:
  // Throws std::runtime_error with the driver's message when the data source cannot be reached.
  Connection(const std::string& dsn, const std::string& user, const std::string& password);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();
  [[nodiscard]] SQLHDBC get() const { return connection_; }

 private:
  SQLHENV environment_ = SQL_NULL_HENV;
  SQLHDBC connection_ = SQL_NULL_HDBC;
};

// Runs sequences of five statements on a connection: read the user, read the token, move the counter on, write the
// audit row, clear the user's failures.
class Session {
 public:
  // With `fresh_handles` each statement gets a handle of its own, as in a server that keeps none.
  Session(const Connection& connection, bool fresh_handles) : connection_(connection), fresh_(fresh_handles) {}
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session() { release(); }

  // One sequence for `user`.  Throws std::runtime_error when a statement fails or a row is missing.
  void run_sequence(const User& user);

 private:
  struct Token {
    std::string serial;
    unsigned long high;
    unsigned long low;
  };

  std::string read_serial(const User& user);
  Token read_token(const std::string& serial);
  void write_outcome(const User& user, const Token& token);
  void execute(const std::string& sql);
  void fetch();
  std::string column(SQLUSMALLINT number);
  void release();

  const Connection& connection_;
  bool fresh_;
  SQLHSTMT statement_ = SQL_NULL_HSTMT;
};

}  // namespace zelvan::bench
