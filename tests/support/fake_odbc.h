// A scripted ODBC library.  Linked into a test program its functions win over the driver manager's.
//
// Without a script every call succeeds, a select yields no rows and an update is done.  It keeps the rules of a driver
// manager: a handle that was freed (or never made) is answered with SQL_INVALID_HANDLE, a connection must be
// disconnected before it is freed and takes its statements along, an environment goes last.
//
// Threads  Any thread may call any function, also the ODBC ones.
#pragma once

#include <sql.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace zelvan::test {

// The calls whose result can be scripted.
enum class OdbcCall {
  alloc_env,
  alloc_dbc,
  alloc_stmt,
  free_env,
  free_dbc,
  free_stmt,     // SQLFreeHandle of a statement
  close_cursor,  // SQLFreeStmt with SQL_CLOSE
  set_env_attr,
  connect,
  disconnect,
  exec_direct,
  fetch,
  get_data,
  describe_col,
  num_result_cols,
  get_info
};

using OdbcCell = std::optional<std::string>;  // std::nullopt is SQL NULL
using OdbcRow = std::vector<OdbcCell>;

// What a statement is answered with.
struct OdbcAnswer {
  std::vector<OdbcRow> rows;
  SQLRETURN code = SQL_SUCCESS;  // result of SQLExecDirect
  int times = 0;                 // how many statements it answers; 0: any number
};

// Forgets handles, scripts and records.  Call it in the set-up of every test.
void odbc_reset();

// Makes the `nth` next call (1: the very next) of that kind return `code`.  A code that is no success leaves the call
// without effect.
void odbc_return(OdbcCall call, SQLRETURN code, int nth = 1);

// Makes every call of that kind return `code`, until reset or odbc_return_normally.
void odbc_return_always(OdbcCall call, SQLRETURN code);
void odbc_return_normally(OdbcCall call);

// Answers the statements that begin with `prefix`, or that `matches` accepts.  Of several answers for a statement the
// one that was scripted first and is not used up counts.
void odbc_answer(std::string prefix, OdbcAnswer answer);
void odbc_answer_if(std::function<bool(const std::string&)> matches, OdbcAnswer answer);

// Forgets the answers scripted so far.
void odbc_clear_answers();

// Runs `hook` with the text at every SQLExecDirect, before its answer, in the calling thread and without a lock held.
void odbc_on_execute(std::function<void(const std::string&)> hook);

// Sets what SQLGetInfo(SQL_DBMS_NAME) reports; "SQLite" after a reset.
void odbc_set_dbms_name(std::string name);

// Every text given to SQLExecDirect on a live statement, in order, those that failed included.
std::vector<std::string> odbc_executed();

// Every ODBC call in order, a word each ("alloc_env", "connect", ...).
std::vector<std::string> odbc_calls();

// How often the call was made since the reset.
int odbc_count(OdbcCall call);

// Whether two threads have been in ODBC calls at the same time since the reset.
bool odbc_overlapped();

// Handles of a type (SQL_HANDLE_ENV, SQL_HANDLE_DBC, SQL_HANDLE_STMT) that are alive; without an argument all of them.
int odbc_live(SQLSMALLINT type);
int odbc_live();

// Arguments of the last SQLConnect, and of every SQLSetEnvAttr.
struct OdbcLogin {
  std::string dsn;
  std::string uid;
  std::string pwd;
};
OdbcLogin odbc_login();
struct OdbcAttribute {
  bool on_environment;  // false: process-wide
  SQLINTEGER attribute;
  long value;
};
std::vector<OdbcAttribute> odbc_attributes();

}  // namespace zelvan::test
