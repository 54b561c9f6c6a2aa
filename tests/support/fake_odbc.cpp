#include "support/fake_odbc.h"

#include <sqlext.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

namespace zelvan::test {
namespace {

constexpr std::array kCallNames{
    "alloc_env", "alloc_dbc",  "alloc_stmt",  "free_env", "free_dbc", "free_stmt",    "close_cursor",    "set_env_attr",
    "connect",   "disconnect", "exec_direct", "fetch",    "get_data", "describe_col", "num_result_cols", "get_info"};

struct Handle {
  SQLSMALLINT type;
  SQLHANDLE parent;
  bool connected = false;     // a connection
  bool cursor = false;        // a statement: a result set is open
  std::vector<OdbcRow> rows;  // a statement
  std::size_t next_row = 0;   // a statement: the row that the next fetch moves to
};

struct Script {
  std::map<int, SQLRETURN> nth;  // by the number of the call since the reset
  std::optional<SQLRETURN> always;
  int count = 0;
};

struct Answer {
  std::function<bool(const std::string&)> matches;
  OdbcAnswer answer;
  int used = 0;
};

struct World {
  std::map<SQLHANDLE, Handle> handles;
  std::array<Script, kCallNames.size()> scripts;
  std::vector<Answer> answers;
  std::function<void(const std::string&)> hook;
  std::string dbms_name = "SQLite";
  std::vector<std::string> executed;
  std::vector<std::string> calls;
  OdbcLogin login;
  std::vector<OdbcAttribute> attributes;
};

std::mutex world_mutex;
std::atomic<int> threads_inside{0};
std::atomic<bool> overlapped{false};
std::uintptr_t last_handle = 0x1000;  // never reset: a handle of an earlier test is never valid again

// Outlives the globals of the code under test, which close their handles at exit.
World& world() {
  static auto* const the_world = new World;
  return *the_world;
}

// Notes that a thread is in a call, which may come from within another one, and lingers for others to come.
class Visit {
 public:
  Visit() {
    if (depth++ > 0) return;
    if (threads_inside++ > 0) overlapped = true;
    std::this_thread::yield();
  }
  ~Visit() {
    if (--depth == 0) --threads_inside;
  }
  Visit(const Visit&) = delete;
  Visit& operator=(const Visit&) = delete;

 private:
  static inline thread_local int depth = 0;
};

Script& script(OdbcCall call) { return world().scripts[static_cast<std::size_t>(call)]; }

// Counts the call and returns its code: the scripted one, or SQL_SUCCESS.
SQLRETURN enter(OdbcCall call) {
  Script& s = script(call);
  ++s.count;
  world().calls.emplace_back(kCallNames[static_cast<std::size_t>(call)]);
  const auto scripted = s.nth.find(s.count);
  if (scripted != s.nth.end()) return scripted->second;
  return s.always.value_or(SQL_SUCCESS);
}

// SQL_NO_DATA is no failure of an update.
bool takes_effect(SQLRETURN code) { return SQL_SUCCEEDED(code) || code == SQL_NO_DATA; }

Handle* find(SQLHANDLE handle, SQLSMALLINT type) {
  const auto found = world().handles.find(handle);
  return found != world().handles.end() && found->second.type == type ? &found->second : nullptr;
}

bool has_children(SQLHANDLE parent) {
  return std::any_of(world().handles.begin(), world().handles.end(),
                     [parent](const auto& entry) { return entry.second.parent == parent; });
}

void free_statements_of(SQLHANDLE connection) {
  std::erase_if(world().handles, [connection](const auto& entry) { return entry.second.parent == connection; });
}

OdbcCall alloc_call(SQLSMALLINT type) {
  if (type == SQL_HANDLE_ENV) return OdbcCall::alloc_env;
  return type == SQL_HANDLE_DBC ? OdbcCall::alloc_dbc : OdbcCall::alloc_stmt;
}

OdbcCall free_call(SQLSMALLINT type) {
  if (type == SQL_HANDLE_ENV) return OdbcCall::free_env;
  return type == SQL_HANDLE_DBC ? OdbcCall::free_dbc : OdbcCall::free_stmt;
}

// Returns what the driver manager says of the parent of a new handle.
SQLRETURN check_parent(SQLSMALLINT type, SQLHANDLE parent) {
  if (type == SQL_HANDLE_ENV) return SQL_SUCCESS;
  const Handle* const owner = find(parent, type == SQL_HANDLE_DBC ? SQL_HANDLE_ENV : SQL_HANDLE_DBC);
  if (owner == nullptr) return SQL_INVALID_HANDLE;
  return type == SQL_HANDLE_STMT && !owner->connected ? SQLRETURN{SQL_ERROR} : SQLRETURN{SQL_SUCCESS};
}

OdbcAnswer answer_to(const std::string& sql) {
  for (Answer& candidate : world().answers) {
    const bool used_up = candidate.answer.times > 0 && candidate.used >= candidate.answer.times;
    if (used_up || !candidate.matches(sql)) continue;
    ++candidate.used;
    return candidate.answer;
  }
  return {};
}

std::string text_of(const SQLCHAR* text) { return text != nullptr ? reinterpret_cast<const char*>(text) : ""; }

// Copies as a driver does: cut and with a NUL.  Returns SQL_SUCCESS_WITH_INFO when cut.
SQLRETURN copy_cut(const std::string& text, void* buffer, SQLLEN capacity) {
  if (buffer == nullptr || capacity <= 0) return text.empty() ? SQL_SUCCESS : SQL_SUCCESS_WITH_INFO;
  const auto room = static_cast<std::size_t>(capacity) - 1;
  const std::size_t length = std::min(text.size(), room);
  std::memcpy(buffer, text.data(), length);
  static_cast<char*>(buffer)[length] = '\0';
  return length < text.size() ? SQL_SUCCESS_WITH_INFO : SQL_SUCCESS;
}

// The row that a statement stands on, or null before the first and after the last.
const OdbcRow* current_row(const Handle& statement) {
  if (!statement.cursor || statement.next_row == 0 || statement.next_row > statement.rows.size()) return nullptr;
  return &statement.rows[statement.next_row - 1];
}

SQLRETURN read_cell(const OdbcCell& cell, void* buffer, SQLLEN capacity, SQLLEN* indicator) {
  if (!cell) {
    if (indicator == nullptr) return SQL_ERROR;  // 22002: the standard asks for an indicator
    *indicator = SQL_NULL_DATA;
    return SQL_SUCCESS;
  }
  if (indicator != nullptr) *indicator = static_cast<SQLLEN>(cell->size());
  return copy_cut(*cell, buffer, capacity);
}

}  // namespace

void odbc_reset() {
  const std::scoped_lock lock(world_mutex);
  world() = World{};
  overlapped = false;
}

void odbc_return(OdbcCall call, SQLRETURN code, int nth) {
  const std::scoped_lock lock(world_mutex);
  Script& s = script(call);
  s.nth[s.count + nth] = code;
}

void odbc_return_always(OdbcCall call, SQLRETURN code) {
  const std::scoped_lock lock(world_mutex);
  script(call).always = code;
}

void odbc_return_normally(OdbcCall call) {
  const std::scoped_lock lock(world_mutex);
  script(call).always.reset();
  script(call).nth.clear();
}

void odbc_answer(std::string prefix, OdbcAnswer answer) {
  odbc_answer_if([prefix = std::move(prefix)](const std::string& sql) { return sql.starts_with(prefix); },
                 std::move(answer));
}

void odbc_answer_if(std::function<bool(const std::string&)> matches, OdbcAnswer answer) {
  const std::scoped_lock lock(world_mutex);
  world().answers.push_back({std::move(matches), std::move(answer)});
}

void odbc_clear_answers() {
  const std::scoped_lock lock(world_mutex);
  world().answers.clear();
}

void odbc_on_execute(std::function<void(const std::string&)> hook) {
  const std::scoped_lock lock(world_mutex);
  world().hook = std::move(hook);
}

void odbc_set_dbms_name(std::string name) {
  const std::scoped_lock lock(world_mutex);
  world().dbms_name = std::move(name);
}

std::vector<std::string> odbc_executed() {
  const std::scoped_lock lock(world_mutex);
  return world().executed;
}

std::vector<std::string> odbc_calls() {
  const std::scoped_lock lock(world_mutex);
  return world().calls;
}

int odbc_count(OdbcCall call) {
  const std::scoped_lock lock(world_mutex);
  return script(call).count;
}

bool odbc_overlapped() { return overlapped; }

int odbc_live(SQLSMALLINT type) {
  const std::scoped_lock lock(world_mutex);
  const auto& handles = world().handles;
  return static_cast<int>(
      std::count_if(handles.begin(), handles.end(), [type](const auto& entry) { return entry.second.type == type; }));
}

int odbc_live() {
  const std::scoped_lock lock(world_mutex);
  return static_cast<int>(world().handles.size());
}

OdbcLogin odbc_login() {
  const std::scoped_lock lock(world_mutex);
  return world().login;
}

std::vector<OdbcAttribute> odbc_attributes() {
  const std::scoped_lock lock(world_mutex);
  return world().attributes;
}

}  // namespace zelvan::test

using namespace zelvan::test;  // NOLINT: the functions below are the library itself

extern "C" {

SQLRETURN SQL_API SQLAllocHandle(SQLSMALLINT type, SQLHANDLE parent, SQLHANDLE* out) {
  const Visit visit;
  const std::scoped_lock lock(world_mutex);
  const SQLRETURN code = enter(alloc_call(type));
  const SQLRETURN allowed = check_parent(type, parent);
  const SQLRETURN result = SQL_SUCCEEDED(code) && !SQL_SUCCEEDED(allowed) ? allowed : code;
  if (result == SQL_ERROR) *out = nullptr;
  if (!SQL_SUCCEEDED(result)) return result;
  *out = reinterpret_cast<SQLHANDLE>(++last_handle);
  world().handles[*out] = Handle{type, parent, false, false, {}, 0};
  return result;
}

SQLRETURN SQL_API SQLFreeHandle(SQLSMALLINT type, SQLHANDLE handle) {
  const Visit visit;
  const std::scoped_lock lock(world_mutex);
  const SQLRETURN code = enter(free_call(type));
  const Handle* const found = find(handle, type);
  if (found == nullptr) return SQL_SUCCEEDED(code) ? SQLRETURN{SQL_INVALID_HANDLE} : code;
  if (!SQL_SUCCEEDED(code)) return code;
  if (found->connected || has_children(handle)) return SQL_ERROR;  // HY010: function sequence error
  world().handles.erase(handle);
  return code;
}

SQLRETURN SQL_API SQLFreeStmt(SQLHSTMT handle, SQLUSMALLINT /*option*/) {
  const Visit visit;
  const std::scoped_lock lock(world_mutex);
  const SQLRETURN code = enter(OdbcCall::close_cursor);
  Handle* const statement = find(handle, SQL_HANDLE_STMT);
  if (statement == nullptr) return SQL_INVALID_HANDLE;
  if (SQL_SUCCEEDED(code)) statement->cursor = false;
  return code;
}

SQLRETURN SQL_API SQLSetEnvAttr(SQLHENV environment, SQLINTEGER attribute, SQLPOINTER value, SQLINTEGER /*length*/) {
  const Visit visit;
  const std::scoped_lock lock(world_mutex);
  const SQLRETURN code = enter(OdbcCall::set_env_attr);
  world().attributes.push_back({environment != nullptr, attribute, static_cast<long>(std::intptr_t(value))});
  return code;
}

SQLRETURN SQL_API SQLConnect(SQLHDBC handle, SQLCHAR* dsn, SQLSMALLINT /*dsn_length*/, SQLCHAR* uid,
                             SQLSMALLINT /*uid_length*/, SQLCHAR* pwd, SQLSMALLINT /*pwd_length*/) {
  const Visit visit;
  const std::scoped_lock lock(world_mutex);
  const SQLRETURN code = enter(OdbcCall::connect);
  world().login = {text_of(dsn), text_of(uid), text_of(pwd)};
  Handle* const connection = find(handle, SQL_HANDLE_DBC);
  if (connection == nullptr) return SQL_SUCCEEDED(code) ? SQLRETURN{SQL_INVALID_HANDLE} : code;
  if (SQL_SUCCEEDED(code)) connection->connected = true;
  return code;
}

SQLRETURN SQL_API SQLDisconnect(SQLHDBC handle) {
  const Visit visit;
  const std::scoped_lock lock(world_mutex);
  const SQLRETURN code = enter(OdbcCall::disconnect);
  Handle* const connection = find(handle, SQL_HANDLE_DBC);
  if (connection == nullptr) return SQL_SUCCEEDED(code) ? SQLRETURN{SQL_INVALID_HANDLE} : code;
  if (!SQL_SUCCEEDED(code)) return code;
  if (!connection->connected) return SQL_ERROR;  // 08003: connection not open
  connection->connected = false;
  free_statements_of(handle);
  return code;
}

SQLRETURN SQL_API SQLExecDirect(SQLHSTMT handle, SQLCHAR* text, SQLINTEGER /*length*/) {
  const Visit visit;
  const std::string sql = text_of(text);
  std::unique_lock lock(world_mutex);
  const SQLRETURN code = enter(OdbcCall::exec_direct);
  if (find(handle, SQL_HANDLE_STMT) == nullptr) return SQL_INVALID_HANDLE;
  world().executed.push_back(sql);
  if (const auto hook = world().hook) {
    lock.unlock();
    hook(sql);
    lock.lock();
  }
  if (!takes_effect(code)) return code;
  OdbcAnswer answer = answer_to(sql);
  const SQLRETURN result = code == SQL_SUCCESS ? answer.code : code;
  Handle* const statement = find(handle, SQL_HANDLE_STMT);  // the hook may have closed the connection
  if (statement == nullptr) return SQL_INVALID_HANDLE;
  if (!takes_effect(result)) return result;
  statement->cursor = true;
  statement->rows = std::move(answer.rows);
  statement->next_row = 0;
  return result;
}

SQLRETURN SQL_API SQLFetch(SQLHSTMT handle) {
  const Visit visit;
  const std::scoped_lock lock(world_mutex);
  const SQLRETURN code = enter(OdbcCall::fetch);
  Handle* const statement = find(handle, SQL_HANDLE_STMT);
  if (statement == nullptr) return SQL_INVALID_HANDLE;
  if (!SQL_SUCCEEDED(code)) return code;
  if (!statement->cursor) return SQL_ERROR;  // 24000: no cursor is open
  if (statement->next_row <= statement->rows.size()) ++statement->next_row;
  return current_row(*statement) != nullptr ? code : SQLRETURN{SQL_NO_DATA};
}

SQLRETURN SQL_API SQLGetData(SQLHSTMT handle, SQLUSMALLINT column, SQLSMALLINT /*type*/, SQLPOINTER buffer,
                             SQLLEN capacity, SQLLEN* indicator) {
  const Visit visit;
  const std::scoped_lock lock(world_mutex);
  const SQLRETURN code = enter(OdbcCall::get_data);
  const Handle* const statement = find(handle, SQL_HANDLE_STMT);
  if (statement == nullptr) return SQL_INVALID_HANDLE;
  if (!SQL_SUCCEEDED(code)) return code;
  const OdbcRow* const row = current_row(*statement);
  if (row == nullptr || column < 1 || column > row->size()) return SQL_ERROR;
  const SQLRETURN result = read_cell((*row)[column - 1U], buffer, capacity, indicator);
  return result == SQL_SUCCESS ? code : result;
}

SQLRETURN SQL_API SQLDescribeCol(SQLHSTMT handle, SQLUSMALLINT column, SQLCHAR* name, SQLSMALLINT name_capacity,
                                 SQLSMALLINT* name_length, SQLSMALLINT* type, SQLULEN* size, SQLSMALLINT* digits,
                                 SQLSMALLINT* nullable) {
  const Visit visit;
  const std::scoped_lock lock(world_mutex);
  const SQLRETURN code = enter(OdbcCall::describe_col);
  if (find(handle, SQL_HANDLE_STMT) == nullptr) return SQL_INVALID_HANDLE;
  if (!SQL_SUCCEEDED(code)) return code;
  const std::string column_name = "column" + std::to_string(column);
  if (name_length != nullptr) *name_length = static_cast<SQLSMALLINT>(column_name.size());
  if (type != nullptr) *type = SQL_VARCHAR;
  if (size != nullptr) *size = 255;
  if (digits != nullptr) *digits = 0;
  if (nullable != nullptr) *nullable = SQL_NULLABLE;
  const SQLRETURN copied = copy_cut(column_name, name, name_capacity);
  return copied == SQL_SUCCESS ? code : copied;
}

SQLRETURN SQL_API SQLNumResultCols(SQLHSTMT handle, SQLSMALLINT* count) {
  const Visit visit;
  const std::scoped_lock lock(world_mutex);
  const SQLRETURN code = enter(OdbcCall::num_result_cols);
  const Handle* const statement = find(handle, SQL_HANDLE_STMT);
  if (statement == nullptr) return SQL_INVALID_HANDLE;
  if (!SQL_SUCCEEDED(code)) return code;
  *count = statement->rows.empty() ? SQLSMALLINT{0} : static_cast<SQLSMALLINT>(statement->rows.front().size());
  return code;
}

SQLRETURN SQL_API SQLGetInfo(SQLHDBC handle, SQLUSMALLINT type, SQLPOINTER value, SQLSMALLINT capacity,
                             SQLSMALLINT* length) {
  const Visit visit;
  const std::scoped_lock lock(world_mutex);
  const SQLRETURN code = enter(OdbcCall::get_info);
  if (find(handle, SQL_HANDLE_DBC) == nullptr) return SQL_INVALID_HANDLE;
  if (!SQL_SUCCEEDED(code)) return code;
  if (type != SQL_DBMS_NAME) return SQL_ERROR;
  if (length != nullptr) *length = static_cast<SQLSMALLINT>(world().dbms_name.size());
  const SQLRETURN copied = copy_cut(world().dbms_name, value, capacity);
  return copied == SQL_SUCCESS ? code : copied;
}

}  // extern "C"
