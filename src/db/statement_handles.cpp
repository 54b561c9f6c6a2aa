#include "db/statement_handles.h"

#include <mutex>

namespace zelvan {
namespace {

std::mutex handle_mutex;

}  // namespace

SQLRETURN allocate_statement(SQLHDBC connection, SQLHSTMT& statement) {
  const std::scoped_lock lock(handle_mutex);
  return SQLAllocHandle(SQL_HANDLE_STMT, connection, &statement);
}

SQLRETURN free_statement(SQLHSTMT statement) {
  const std::scoped_lock lock(handle_mutex);
  return SQLFreeHandle(SQL_HANDLE_STMT, statement);
}

bool discard_connection(SQLHDBC connection) {
  const std::scoped_lock lock(handle_mutex);
  const bool closed = SQL_SUCCEEDED(SQLDisconnect(connection));
  (void)SQLFreeHandle(SQL_HANDLE_DBC, connection);
  return closed;
}

}  // namespace zelvan
