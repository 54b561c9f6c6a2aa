#include "db/OTPDatabase.h"

#include <sqlext.h>
#include <strings.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <utility>

#include "base/clock.h"
#include "base/locks.h"
#include "db/statements.h"

COTPDatabase otp_database;
pthread_mutex_t dbrecon_mutex = PTHREAD_MUTEX_INITIALIZER;

namespace zelvan {

void WipeText::operator()(SQLCHAR* text) const {
  explicit_bzero(text, std::strlen(reinterpret_cast<const char*>(text)));
  delete[] text;
}

}  // namespace zelvan

namespace {

// ODBC passes integer attributes in the pointer argument.
SQLPOINTER integer_attribute(std::uintptr_t value) {
  return reinterpret_cast<SQLPOINTER>(value);  // NOLINT(performance-no-int-to-ptr)
}

// The process-wide pooling attribute.  Its value is 2, which sqlext.h calls SQL_CP_ONE_PER_HENV.
constexpr std::uintptr_t kConnectionPooling = 2;

bool set_attribute(SQLHENV environment, SQLINTEGER attribute, std::uintptr_t value) {
  return SQLSetEnvAttr(environment, attribute, integer_attribute(value), 0) != SQL_ERROR;
}

// Closes and frees a connection.
// Returns true when it was closed, which frees its statements too; false when the driver refused, as the SQLite driver
// does while a statement is left: connection and statements then stay, out of reach.
bool discard(SQLHDBC connection) {
  const bool closed = SQL_SUCCEEDED(SQLDisconnect(connection));
  (void)SQLFreeHandle(SQL_HANDLE_DBC, connection);
  return closed;
}

// Tells the statement builder how the DBMS at the other end reads text.  Without an answer a backslash is doubled:
// where that is wrong a name with a backslash is not found, where leaving it out is wrong a name could end its quotes.
void note_dbms(SQLHDBC connection) {
  std::array<char, 128> name{};
  const SQLRETURN code =
      SQLGetInfo(connection, SQL_DBMS_NAME, name.data(), static_cast<SQLSMALLINT>(name.size() - 1), nullptr);
  zelvan::set_backslash_escapes(!SQL_SUCCEEDED(code) || strcasestr(name.data(), "mariadb") != nullptr ||
                                strcasestr(name.data(), "mysql") != nullptr);
  // Its driver talks UTF-8 to the server, whatever the encoding of the database.
  zelvan::set_utf8_only(strcasestr(name.data(), "postgresql") != nullptr);
}

}  // namespace

COTPDatabase::COTPDatabase() : last_reconnect_(zelvan::now_seconds()) {}

COTPDatabase::~COTPDatabase() { (void)COTPDatabase::DBDisconnect(); }

int COTPDatabase::DBConnect(const SQLCHAR* dsn, SQLSMALLINT /*dsn_length*/, const SQLCHAR* uid,
                            SQLSMALLINT /*uid_length*/, const SQLCHAR* pwd, SQLSMALLINT /*pwd_length*/) {
  release_handles();
  dsn_ = copy_of(dsn);
  uid_ = copy_of(uid);
  pwd_ = copy_of(pwd);

  const SQLRETURN code = allocate_handles() ? connect() : SQLRETURN{SQL_ERROR};
  if (code == SQL_ERROR) {
    release_handles();
    return zelvan::kConnectFailed;
  }
  // Deliberate: a code that is neither a success nor SQL_ERROR is reported as it is, with the object connected all the
  // same; the caller decides.
  connected_ = 1;
  if (!SQL_SUCCEEDED(code)) return code;
  note_dbms(connection_);
  return zelvan::kConnected;
}

int COTPDatabase::DBDisconnect() {
  if (connected_ == 0) {
    free_texts();
    return zelvan::kDisconnected;
  }
  // At exit a thread that outlives main may still be reconnecting.
  const Hold held = hold();
  const zelvan::ScopedLock lock(dbrecon_mutex);
  free_texts();
  if (SQLDisconnect(connection_) == SQL_ERROR) return zelvan::kDisconnectFailed;
  connected_ = 0;
  if (SQLFreeHandle(SQL_HANDLE_DBC, connection_) == SQL_ERROR) return zelvan::kDisconnectFailed;
  connection_ = SQL_NULL_HDBC;
  return SQLFreeHandle(SQL_HANDLE_ENV, std::exchange(environment_, nullptr));
}

int COTPDatabase::DBReConnect() {
  // No other thread may be in the driver manager until the connection stands: SQLConnect changes the level at which the
  // manager locks for this handle, and a call that began at the old level would leave its lock behind for ever.  A
  // statement object with a copy of the old handle can make such a call, since the new one may get the same address.
  const Hold held = hold();
  const zelvan::ScopedLock lock(dbrecon_mutex);
  if (zelvan::now_seconds() - last_reconnect_ <= zelvan::kReconnectPause) return zelvan::kReconnectTooSoon;

  if (discard(connection_.exchange(SQL_NULL_HDBC))) ++closings_;

  // Deliberate: without a new handle the connection stays null, later statement objects are unconnected and nothing
  // asks for a reconnect any more: the server is without database until it is restarted.
  SQLHDBC fresh = SQL_NULL_HDBC;
  if (!SQL_SUCCEEDED(SQLAllocHandle(SQL_HANDLE_DBC, environment_, &fresh))) return zelvan::kReconnectNoHandle;
  connection_ = fresh;

  const SQLRETURN code = connect();
  if (!SQL_SUCCEEDED(code)) return code;
  last_reconnect_ = zelvan::now_seconds();
  return zelvan::kReconnected;
}

void COTPDatabase::borrow_connection(const COTPDatabase& source) {
  connection_ = source.connection();
  connected_ = connection_ != SQL_NULL_HDBC ? 1 : 0;
}

void COTPDatabase::forget_connection() {
  connected_ = 0;
  connection_ = SQL_NULL_HDBC;
}

COTPDatabase::Text COTPDatabase::copy_of(const SQLCHAR* text) {
  const char* const characters = text != nullptr ? reinterpret_cast<const char*>(text) : "";
  const std::size_t size = std::strlen(characters) + 1;
  Text copy(new SQLCHAR[size]);
  std::memcpy(copy.get(), characters, size);
  return copy;
}

bool COTPDatabase::allocate_handles() {
  if (!set_attribute(SQL_NULL_HENV, SQL_ATTR_CONNECTION_POOLING, kConnectionPooling)) return false;
  if (SQLAllocHandle(SQL_HANDLE_ENV, SQL_NULL_HANDLE, &environment_) == SQL_ERROR) return false;
  if (!set_attribute(environment_, SQL_ATTR_ODBC_VERSION, SQL_OV_ODBC3)) return false;
  SQLHDBC fresh = SQL_NULL_HDBC;
  if (SQLAllocHandle(SQL_HANDLE_DBC, environment_, &fresh) == SQL_ERROR) return false;
  connection_ = fresh;
  return true;
}

SQLRETURN COTPDatabase::connect() {
  return SQLConnect(connection_, dsn_.get(), SQL_NTS, uid_.get(), SQL_NTS, pwd_.get(), SQL_NTS);
}

void COTPDatabase::release_handles() {
  if (connected_.exchange(0) != 0) (void)SQLDisconnect(connection_);
  const SQLHDBC connection = connection_.exchange(SQL_NULL_HDBC);
  if (connection != SQL_NULL_HDBC) (void)SQLFreeHandle(SQL_HANDLE_DBC, connection);
  const SQLHENV environment = std::exchange(environment_, nullptr);
  if (environment != SQL_NULL_HENV) (void)SQLFreeHandle(SQL_HANDLE_ENV, environment);
}

void COTPDatabase::free_texts() {
  dsn_.reset();
  uid_.reset();
  pwd_.reset();
}
