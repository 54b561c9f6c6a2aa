#include "bench/odbc_floor_session.h"

#include <fmt/format.h>

#include <array>
#include <ctime>
#include <stdexcept>

namespace zelvan::bench {
namespace {

constexpr SQLUSMALLINT kUserColumns = 6;   // the seventh, the PIN, is read for users with a PIN only
constexpr SQLUSMALLINT kTokenColumns = 8;  // key, type, counter high and low, date, digits, window, step
constexpr SQLUSMALLINT kHighColumn = 3;
constexpr SQLUSMALLINT kLowColumn = 4;

[[noreturn]] void fail(SQLSMALLINT kind, SQLHANDLE handle, const std::string& what) {
  std::array<SQLCHAR, 6> state{};
  std::array<SQLCHAR, 512> message{};
  SQLINTEGER native = 0;
  SQLSMALLINT length = 0;
  SQLGetDiagRec(kind, handle, 1, state.data(), &native, message.data(), static_cast<SQLSMALLINT>(message.size()),
                &length);
  throw std::runtime_error(fmt::format("{}: {}", what, reinterpret_cast<const char*>(message.data())));
}

SQLCHAR* sql_text(const std::string& text) { return reinterpret_cast<SQLCHAR*>(const_cast<char*>(text.c_str())); }

std::string utc_now() {
  const std::time_t now = std::time(nullptr);
  std::tm broken{};
  gmtime_r(&now, &broken);
  std::array<char, 20> text{};
  return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &broken)};
}

}  // namespace

Connection::Connection(const std::string& dsn, const std::string& user, const std::string& password) {
  if (!SQL_SUCCEEDED(SQLAllocHandle(SQL_HANDLE_ENV, SQL_NULL_HANDLE, &environment_)) ||
      // NOLINTNEXTLINE(performance-no-int-to-ptr): the attribute is a number by the interface's definition
      !SQL_SUCCEEDED(
          SQLSetEnvAttr(environment_, SQL_ATTR_ODBC_VERSION, reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0)) ||
      !SQL_SUCCEEDED(SQLAllocHandle(SQL_HANDLE_DBC, environment_, &connection_))) {
    fail(SQL_HANDLE_ENV, environment_, "ODBC handles");
  }
  if (!SQL_SUCCEEDED(
          SQLConnect(connection_, sql_text(dsn), SQL_NTS, sql_text(user), SQL_NTS, sql_text(password), SQL_NTS))) {
    fail(SQL_HANDLE_DBC, connection_, "connect to " + dsn);
  }
}

Connection::~Connection() {
  SQLDisconnect(connection_);
  SQLFreeHandle(SQL_HANDLE_DBC, connection_);
  SQLFreeHandle(SQL_HANDLE_ENV, environment_);
}

void Session::release() {
  if (statement_ != SQL_NULL_HSTMT) SQLFreeHandle(SQL_HANDLE_STMT, statement_);
  statement_ = SQL_NULL_HSTMT;
}

void Session::execute(const std::string& sql) {
  if (fresh_) release();
  if (statement_ == SQL_NULL_HSTMT) {
    if (!SQL_SUCCEEDED(SQLAllocHandle(SQL_HANDLE_STMT, connection_.get(), &statement_))) {
      fail(SQL_HANDLE_DBC, connection_.get(), "statement handle");
    }
  } else {
    SQLFreeStmt(statement_, SQL_CLOSE);
  }
  if (!SQL_SUCCEEDED(SQLExecDirect(statement_, sql_text(sql), SQL_NTS))) fail(SQL_HANDLE_STMT, statement_, sql);
}

void Session::fetch() {
  const SQLRETURN result = SQLFetch(statement_);
  if (result == SQL_NO_DATA) throw std::runtime_error("a user or token of the list is not in the database");
  if (!SQL_SUCCEEDED(result)) fail(SQL_HANDLE_STMT, statement_, "fetch");
}

std::string Session::column(SQLUSMALLINT number) {
  std::array<char, 128> text{};
  SQLLEN indicator = 0;
  if (!SQL_SUCCEEDED(SQLGetData(statement_, number, SQL_C_CHAR, text.data(), text.size(), &indicator))) {
    fail(SQL_HANDLE_STMT, statement_, "column");
  }
  return text.data();
}

std::string Session::read_serial(const User& user) {
  execute(
      fmt::format("select serialnum, islocked, failaccum, preusedate, user_email, authtype, pin from userinfo "
                  "where username='{}' and isdeleted = 0",
                  user.name));
  fetch();
  std::string serial = column(1);
  for (SQLUSMALLINT number = 2; number <= kUserColumns; ++number) column(number);
  return serial;
}

Session::Token Session::read_token(const std::string& serial) {
  execute(
      fmt::format("select userkey, tktype, hcounter, lcounter, predate, diglen, authwnd, tmstep from keyinfo "
                  "where serialnum = '{}'",
                  serial));
  fetch();
  Token token{serial, 0, 0};
  for (SQLUSMALLINT number = 1; number <= kTokenColumns; ++number) {
    const std::string text = column(number);
    if (number == kHighColumn) token.high = std::stoul(text);
    if (number == kLowColumn) token.low = std::stoul(text);
  }
  return token;
}

void Session::write_outcome(const User& user, const Token& token) {
  const std::string now = utc_now();
  execute(fmt::format("update keyinfo set hcounter={}, lcounter={}, predate='{}' where serialnum='{}'", token.high,
                      token.low + 1, now, token.serial));
  execute(
      fmt::format("insert into commonloginfo (optime, operator, loglev, optype, remark, remoteip) "
                  "values('{}', '{}', 100, 1, 'auth succeed', '127.0.0.1')",
                  now, user.name));
  execute(fmt::format("update userinfo set failaccum = 0, preusedate='{}' where username = '{}'", now, user.name));
}

void Session::run_sequence(const User& user) {
  write_outcome(user, read_token(read_serial(user)));
  SQLFreeStmt(statement_, SQL_CLOSE);
}

}  // namespace zelvan::bench
