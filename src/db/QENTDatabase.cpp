#include "db/QENTDatabase.h"

#include <sqlext.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <utility>

#include "base/text.h"

static_assert(std::is_same_v<SQLLEN, long> && std::is_same_v<SQLULEN, unsigned long>, "GetData hands pointers through");

namespace {

// Deliberate: leading blanks are not skipped, so a select that begins with one runs as a non-select and its result set
// is discarded.
bool is_select(const char* sql) { return strncasecmp(sql, "select", 6) == 0; }

// Stands for a statement that was freed: an address that no driver manager hands out, so that every call with it is
// answered with SQL_INVALID_HANDLE.  As large as what a driver manager may look at.
std::array<unsigned char, 4096> lost_statement_memory{};
constexpr SQLHSTMT lost_statement = lost_statement_memory.data();

// SQLExecDirect takes a text that it does not write to without const.
SQLRETURN execute(SQLHSTMT statement, const char* sql) {
  return SQLExecDirect(statement, reinterpret_cast<SQLCHAR*>(const_cast<char*>(sql)), SQL_NTS);
}

}  // namespace

CQENTDatabase::CQENTDatabase() : borrowed_(0), source_(nullptr) {}

CQENTDatabase::CQENTDatabase(COTPDatabase* source) : borrowed_(1), source_(source) {
  if (source != nullptr) borrow_connection(*source);
}

CQENTDatabase::~CQENTDatabase() {
  {
    const Hold held = hold_connection();
    if (statement_ != SQL_NULL_HSTMT) {
      (void)close_cursor();
      (void)free_statement();
    }
  }
  (void)CQENTDatabase::DBDisconnect();
}

int CQENTDatabase::DBConnect(const SQLCHAR* dsn, SQLSMALLINT dsn_length, const SQLCHAR* uid, SQLSMALLINT uid_length,
                             const SQLCHAR* pwd, SQLSMALLINT pwd_length) {
  if (borrowed_ != 0) return zelvan::kConnected;
  return COTPDatabase::DBConnect(dsn, dsn_length, uid, uid_length, pwd, pwd_length);
}

int CQENTDatabase::DBDisconnect() {
  if (borrowed_ == 0) return COTPDatabase::DBDisconnect();
  const Hold held = hold_connection();
  const SQLRETURN code = statement_ != SQL_NULL_HSTMT ? free_statement() : SQLRETURN{SQL_SUCCESS};
  forget_connection();
  return code;
}

int CQENTDatabase::ExecuteDirect(const char* sql) {
  if (sql == nullptr || connection() == SQL_NULL_HDBC) return zelvan::kNotExecuted;
  const Hold held = hold_connection();
  const Execution execution = is_select(sql) ? execute_select(sql) : execute_update(sql);
  if (execution == Execution::done) return zelvan::kExecuted;

  // The failed text is not run again, and whether the reconnect succeeded is not looked at: this object goes on with
  // its copy of the old handle, objects made later use the new one.
  if (execution == Execution::needs_reconnect && source_ != nullptr) (void)source_->DBReConnect();
  return zelvan::kNotExecuted;
}

CQENTDatabase::Execution CQENTDatabase::execute_select(const char* sql) {
  if (statement_ != SQL_NULL_HSTMT) {
    if (close_cursor() == SQL_ERROR) return Execution::failed;
  } else if (!open_statement()) {
    return Execution::needs_reconnect;
  }
  // Deliberate: only SQL_ERROR is a failure.  A select on a connection that a reconnect has freed is answered with
  // SQL_INVALID_HANDLE and counts as executed; its FetchRow then fails.
  if (execute(statement_, sql) != SQL_ERROR) return Execution::done;
  (void)free_statement();
  return Execution::needs_reconnect;
}

CQENTDatabase::Execution CQENTDatabase::execute_update(const char* sql) {
  if (statement_ != SQL_NULL_HSTMT) {
    if (close_cursor() == SQL_ERROR) return Execution::failed;
    (void)free_statement();
  }
  if (!open_statement()) return Execution::needs_reconnect;
  const SQLRETURN executed = execute(statement_, sql);
  const SQLRETURN freed = free_statement();
  if (executed == SQL_ERROR) return Execution::needs_reconnect;
  // On a connection that a reconnect has freed every call answers SQL_INVALID_HANDLE, this release too: an update that
  // never ran is not reported as executed.
  return SQL_SUCCEEDED(freed) ? Execution::done : Execution::failed;
}

// Keeps the source's connection to this thread while the result lives.  A statement that went with a connection closed
// since is no longer named by its address, which may belong to another thread's statement by now.
COTPDatabase::Hold CQENTDatabase::hold_connection() {
  if (source_ == nullptr) return {};
  Hold held = source_->hold();
  const bool lost = statement_closings_ != source_->closings();
  statement_closings_ = source_->closings();
  if (lost && statement_ != SQL_NULL_HSTMT) statement_ = lost_statement;
  return held;
}

// Allocates the statement handle.  It stays null when the driver manager does not make one.
bool CQENTDatabase::open_statement() {
  SQLHSTMT fresh = SQL_NULL_HSTMT;
  const SQLRETURN code = SQLAllocHandle(SQL_HANDLE_STMT, connection(), &fresh);
  if (code == SQL_ERROR) return false;
  statement_ = fresh;
  return true;
}

SQLRETURN CQENTDatabase::close_cursor() { return SQLFreeStmt(statement_, SQL_CLOSE); }

SQLRETURN CQENTDatabase::free_statement() { return SQLFreeHandle(SQL_HANDLE_STMT, std::exchange(statement_, nullptr)); }

int CQENTDatabase::FetchRow() {
  const Hold held = hold_connection();
  if (statement_ == SQL_NULL_HSTMT) return zelvan::kFetchNoStatement;
  switch (SQLFetch(statement_)) {
    case SQL_SUCCESS:
    case SQL_SUCCESS_WITH_INFO:
      return zelvan::kFetched;
    case SQL_NO_DATA:
      return zelvan::kNoData;
    case SQL_ERROR:
      return zelvan::kFetchError;
    default:
      return zelvan::kFetchUnexpected;
  }
}

int CQENTDatabase::GetData(unsigned short column, void* buffer, long length, long* indicator, short type) {
  const Hold held = hold_connection();
  if (statement_ == SQL_NULL_HSTMT) return zelvan::kColumnNoStatement;
  const SQLRETURN code = SQLGetData(statement_, column, type, buffer, length, indicator);
  return SQL_SUCCEEDED(code) ? zelvan::kColumnRead : zelvan::kColumnFailed;
}

int CQENTDatabase::DescribeCol(short column, unsigned char* name, short length, short* name_length, short* data_type,
                               unsigned long* column_size, short* decimal_digits, short* nullable) {
  const Hold held = hold_connection();
  if (statement_ == SQL_NULL_HSTMT) return zelvan::kColumnNoStatement;
  const SQLRETURN code = SQLDescribeCol(statement_, static_cast<SQLUSMALLINT>(column), name, length, name_length,
                                        data_type, column_size, decimal_digits, nullable);
  return SQL_SUCCEEDED(code) ? zelvan::kColumnRead : zelvan::kColumnFailed;
}

int CQENTDatabase::ColuminRow() {
  const Hold held = hold_connection();
  if (statement_ == SQL_NULL_HSTMT) return zelvan::kColumnNoStatement;
  SQLSMALLINT count = 0;
  if (!SQL_SUCCEEDED(SQLNumResultCols(statement_, &count))) return zelvan::kColumnFailed;
  return count;
}

namespace zelvan {

ColumnRead read_text(CQENTDatabase& database, unsigned short column, std::span<char> out) {
  if (out.empty()) return ColumnRead::failed;
  // Read aside, so that a driver that fails half-way leaves `out` as it was.
  std::array<char, kLongestColumnText + 1> text{};
  const std::size_t capacity = std::min(out.size(), text.size());
  long indicator = 0;
  auto result = ColumnRead::failed;
  if (database.GetData(column, text.data(), static_cast<long>(capacity), &indicator, SQL_C_CHAR) == kColumnRead) {
    result = indicator == SQL_NULL_DATA ? ColumnRead::null : ColumnRead::read;
    const std::size_t length = result == ColumnRead::read ? strnlen(text.data(), capacity - 1) : 0;
    (void)copy_text(out, std::string_view(text.data(), length));  // fits: length < out.size()
  }
  explicit_bzero(text.data(), text.size());  // it may be a PIN or a key
  return result;
}

}  // namespace zelvan
