#include "zelvanctl/database.h"

#include <sqlext.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>

namespace zelvan::ctl {
namespace {

bool succeeded(SQLRETURN result) { return result == SQL_SUCCESS || result == SQL_SUCCESS_WITH_INFO; }

// ODBC takes texts through pointers to unsigned characters that it does not write to.
SQLCHAR* odbc_text(const char* text) { return const_cast<SQLCHAR*>(reinterpret_cast<const SQLCHAR*>(text)); }
SQLCHAR* odbc_text(const std::string& text) { return odbc_text(text.c_str()); }

// A name for a catalogue function, which takes a null pointer for any.
SQLCHAR* name_or_null(const std::string& name) { return name.empty() ? nullptr : odbc_text(name); }
SQLSMALLINT name_length(const std::string& name) { return static_cast<SQLSMALLINT>(name.size()); }

// The first diagnostic record of a handle as an exception.
DatabaseError diagnosis(SQLSMALLINT kind, SQLHANDLE handle, const std::string& what, ExitCode code) {
  std::array<SQLCHAR, 6> state{};
  std::array<SQLCHAR, 1024> text{};
  SQLINTEGER native = 0;
  SQLSMALLINT length = 0;
  if (!succeeded(SQLGetDiagRec(kind, handle, 1, state.data(), &native, text.data(), text.size(), &length))) {
    return {code, what + ": the driver gives no reason", ""};
  }
  const std::string state_text(reinterpret_cast<const char*>(state.data()));
  const std::string reason(reinterpret_cast<const char*>(text.data()));
  return {code, what + ": " + reason + " (SQLSTATE " + state_text + ")", state_text};
}

// A statement handle with the values bound to it.
class Statement {
 public:
  explicit Statement(SQLHDBC connection) {
    if (!succeeded(SQLAllocHandle(SQL_HANDLE_STMT, connection, &handle_))) {
      throw diagnosis(SQL_HANDLE_DBC, connection, "cannot begin a statement", kFailed);
    }
  }
  ~Statement() { (void)SQLFreeHandle(SQL_HANDLE_STMT, handle_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  [[nodiscard]] SQLHSTMT handle() const { return handle_; }

  // Runs the statement; the parameters must live as long as the call.
  void run(const std::string& sql, const Parameters& parameters) {
    indicators_.resize(parameters.size());
    for (std::size_t i = 0; i < parameters.size(); ++i) bind(i, parameters[i]);
    const SQLRETURN result = SQLExecDirect(handle_, odbc_text(sql), static_cast<SQLINTEGER>(sql.size()));
    if (!succeeded(result) && result != SQL_NO_DATA) throw failure("the database refuses");
  }

  // Moves to the next row; false when there is none.
  bool fetch() {
    const SQLRETURN result = SQLFetch(handle_);
    if (result == SQL_NO_DATA) return false;
    if (!succeeded(result)) throw failure("cannot read a row");
    return true;
  }

  // Reads a column of the current row, however long it is.
  std::optional<Secret> column(SQLUSMALLINT number) {
    std::array<char, 512> part{};
    std::string text;
    SQLLEN length = 0;
    while (true) {
      const SQLRETURN result = SQLGetData(handle_, number, SQL_C_CHAR, part.data(), part.size(), &length);
      if (result == SQL_NO_DATA) break;
      if (!succeeded(result)) throw failure("cannot read a column");
      if (length == SQL_NULL_DATA) return {};
      const bool cut = result == SQL_SUCCESS_WITH_INFO &&
                       (length == SQL_NO_TOTAL || static_cast<std::size_t>(length) >= part.size());
      text.append(part.data(), cut ? part.size() - 1 : static_cast<std::size_t>(length));
      if (!cut) break;
    }
    Secret cell(text);
    explicit_bzero(text.data(), text.size());
    explicit_bzero(part.data(), part.size());
    return cell;
  }

  // The column as text; empty for NULL.
  std::string text(SQLUSMALLINT number) {
    const auto cell = column(number);
    return cell ? cell->reveal() : "";
  }

  [[nodiscard]] SQLUSMALLINT column_count() const {
    SQLSMALLINT count = 0;
    (void)SQLNumResultCols(handle_, &count);
    return static_cast<SQLUSMALLINT>(std::max<SQLSMALLINT>(count, 0));
  }

  [[nodiscard]] std::int64_t changed_rows() const {
    SQLLEN count = 0;
    return succeeded(SQLRowCount(handle_, &count)) ? count : 0;
  }

  [[nodiscard]] DatabaseError failure(const std::string& what) const {
    return diagnosis(SQL_HANDLE_STMT, handle_, what, kFailed);
  }

 private:
  void bind(std::size_t index, const Parameter& parameter) {
    SQLLEN& indicator = indicators_[index];
    SQLSMALLINT c_type = SQL_C_CHAR;
    SQLSMALLINT sql_type = SQL_VARCHAR;
    SQLULEN size = 1;
    SQLLEN length = 0;  // bytes of a text
    const void* value = nullptr;
    if (const std::int64_t* number = parameter.number()) {
      c_type = SQL_C_SBIGINT;
      sql_type = SQL_BIGINT;
      value = number;
    } else if (const Secret* text = parameter.text()) {
      length = static_cast<SQLLEN>(text->reveal().size());
      indicator = length;
      size = std::max<SQLULEN>(text->reveal().size(), 1);
      value = text->reveal().c_str();
    } else {
      indicator = SQL_NULL_DATA;
    }
    const SQLRETURN result = SQLBindParameter(handle_, static_cast<SQLUSMALLINT>(index + 1), SQL_PARAM_INPUT, c_type,
                                              sql_type, size, 0, const_cast<void*>(value), length, &indicator);
    if (!succeeded(result)) throw failure("cannot bind a value");
  }

  SQLHSTMT handle_ = SQL_NULL_HSTMT;
  std::vector<SQLLEN> indicators_;
};

ColumnDescription::Kind kind_of(SQLLEN type) {
  using Kind = ColumnDescription::Kind;
  switch (type) {
    case SQL_VARCHAR:
    case SQL_LONGVARCHAR:
    case SQL_WVARCHAR:
    case SQL_WLONGVARCHAR:
      return Kind::text;
    case SQL_CHAR:
    case SQL_WCHAR:
      return Kind::padded_text;
    case SQL_TINYINT:
    case SQL_SMALLINT:
    case SQL_INTEGER:
    case SQL_BIGINT:
    case SQL_BIT:
      return Kind::integer;
    case SQL_DECIMAL:
    case SQL_NUMERIC:
    case SQL_REAL:
    case SQL_FLOAT:
    case SQL_DOUBLE:
      return Kind::decimal;
    case SQL_TYPE_DATE:
    case SQL_TYPE_TIMESTAMP:
    case SQL_DATETIME:
    case SQL_TIMESTAMP:
      return Kind::date;
    default:
      return Kind::other;
  }
}

}  // namespace

bool DatabaseError::duplicate() const {
  const std::string_view text = what();
  return state_ == "23505" || text.find("UNIQUE constraint") != text.npos || text.find("Duplicate entry") != text.npos;
}

bool DatabaseError::forbidden() const {
  const std::string_view text = what();
  return state_ == "42501" || (state_ == "42000" && text.find(" denied ") != text.npos);
}

std::optional<std::string> Row::text(std::size_t column) const {
  const auto& cell = cells_.at(column);
  if (!cell) return {};
  return cell->reveal();
}

std::int64_t Row::number(std::size_t column) const {
  const auto& cell = cells_.at(column);
  return cell ? std::strtoll(cell->reveal().c_str(), nullptr, 10) : 0;
}

Database::Database(const char* dsn, const char* uid, const char* pwd) {
  if (!succeeded(SQLAllocHandle(SQL_HANDLE_ENV, SQL_NULL_HANDLE, &environment_))) {
    throw Failure(kUnreachable, "the ODBC driver manager does not start");
  }
  (void)SQLSetEnvAttr(environment_, SQL_ATTR_ODBC_VERSION, reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0);
  if (!succeeded(SQLAllocHandle(SQL_HANDLE_DBC, environment_, &connection_))) {
    (void)SQLFreeHandle(SQL_HANDLE_ENV, environment_);
    throw Failure(kUnreachable, "the ODBC driver manager gives no connection");
  }
  const SQLRETURN result =
      SQLConnect(connection_, odbc_text(dsn), SQL_NTS, odbc_text(uid), SQL_NTS, odbc_text(pwd), SQL_NTS);
  connected_ = succeeded(result);
  if (connected_) return;
  const auto error =
      diagnosis(SQL_HANDLE_DBC, connection_, "cannot connect to data source '" + std::string(dsn) + "'", kUnreachable);
  (void)SQLFreeHandle(SQL_HANDLE_DBC, connection_);
  (void)SQLFreeHandle(SQL_HANDLE_ENV, environment_);
  throw DatabaseError(error);
}

Database::~Database() {
  (void)SQLDisconnect(connection_);
  (void)SQLFreeHandle(SQL_HANDLE_DBC, connection_);
  (void)SQLFreeHandle(SQL_HANDLE_ENV, environment_);
}

std::string Database::dbms_name() const {
  std::array<char, 128> name{};
  SQLSMALLINT length = 0;
  if (!succeeded(SQLGetInfo(connection_, SQL_DBMS_NAME, name.data(), name.size(), &length))) return {};
  return name.data();
}

std::vector<Row> Database::query(const std::string& sql, const Parameters& parameters) {
  Statement statement(connection_);
  statement.run(sql, parameters);
  const SQLUSMALLINT count = statement.column_count();
  std::vector<Row> rows;
  while (count > 0 && statement.fetch()) {
    Row row;
    for (SQLUSMALLINT column = 1; column <= count; ++column) row.add(statement.column(column));
    rows.push_back(std::move(row));
  }
  return rows;
}

std::int64_t Database::execute(const std::string& sql, const Parameters& parameters) {
  Statement statement(connection_);
  statement.run(sql, parameters);
  return statement.changed_rows();
}

std::vector<ColumnDescription> Database::columns(const std::string& table, const std::string& schema) {
  Statement statement(connection_);
  if (!succeeded(SQLColumns(statement.handle(), nullptr, 0, name_or_null(schema), name_length(schema), odbc_text(table),
                            name_length(table), nullptr, 0))) {
    throw statement.failure("cannot list the columns of " + table);
  }
  // Columns of SQLColumns: 4 name, 5 type, 7 size.
  std::vector<ColumnDescription> columns;
  while (statement.fetch()) {
    const std::string name = statement.text(4);
    const std::string type = statement.text(5);
    const std::string size = statement.text(7);
    columns.push_back({name, kind_of(static_cast<SQLSMALLINT>(std::strtol(type.c_str(), nullptr, 10))),
                       std::strtoull(size.c_str(), nullptr, 10)});
  }
  return columns;
}

std::vector<std::vector<std::string>> Database::unique_indexes(const std::string& table, const std::string& schema) {
  Statement statement(connection_);
  if (!succeeded(SQLStatistics(statement.handle(), nullptr, 0, name_or_null(schema), name_length(schema),
                               odbc_text(table), name_length(table), SQL_INDEX_UNIQUE, SQL_QUICK))) {
    throw statement.failure("cannot list the indexes of " + table);
  }
  // Columns of SQLStatistics: 4 non-unique, 6 index name, 7 kind, 9 column name.
  std::map<std::string, std::vector<std::string>> groups;
  while (statement.fetch()) {
    const auto non_unique = statement.column(4);
    const auto index = statement.column(6);
    const auto kind = statement.column(7);
    const auto column = statement.column(9);
    const bool summary = kind && kind->reveal() == std::to_string(SQL_TABLE_STAT);
    if (summary || !column || (non_unique && non_unique->reveal() != "0")) continue;
    groups[index ? index->reveal() : ""].push_back(column->reveal());
  }
  std::vector<std::vector<std::string>> indexes;
  indexes.reserve(groups.size());
  for (auto& [name, columns] : groups) indexes.push_back(std::move(columns));
  return indexes;
}

void Database::begin() {
  if (!succeeded(
          SQLSetConnectAttr(connection_, SQL_ATTR_AUTOCOMMIT, reinterpret_cast<SQLPOINTER>(SQL_AUTOCOMMIT_OFF), 0))) {
    throw diagnosis(SQL_HANDLE_DBC, connection_, "cannot begin a transaction", kFailed);
  }
}

void Database::commit() {
  if (!succeeded(SQLEndTran(SQL_HANDLE_DBC, connection_, SQL_COMMIT))) {
    throw diagnosis(SQL_HANDLE_DBC, connection_, "cannot commit", kFailed);
  }
}

void Database::rollback() noexcept { (void)SQLEndTran(SQL_HANDLE_DBC, connection_, SQL_ROLLBACK); }

void Database::leave_transaction() noexcept {
  (void)SQLSetConnectAttr(connection_, SQL_ATTR_AUTOCOMMIT, reinterpret_cast<SQLPOINTER>(SQL_AUTOCOMMIT_ON), 0);
}

Transaction::Transaction(Database& database) : database_(database) { database_.begin(); }

Transaction::~Transaction() {
  if (!open_) return;
  database_.rollback();
  database_.leave_transaction();
}

void Transaction::commit() {
  database_.commit();
  open_ = false;
  database_.leave_transaction();
}

}  // namespace zelvan::ctl
