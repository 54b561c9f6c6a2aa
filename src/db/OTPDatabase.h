// The one connection of the process to its database.
//
// Start-up connects `otp_database` once; units of work borrow the connection through a CQENTDatabase each.  A failing
// statement asks for a reconnect, which is throttled, so the server heals itself after the database was restarted.
//
// Source   ODBC 3 call-level interface through the driver manager.
// Differs  Diagnostic records are not read and nothing is logged: callers log their own failures.
// Threads  DBConnect and DBDisconnect belong to start-up and exit.  The other functions may be called by any thread.
//          One thread at a time is in the driver: see hold().  Reconnects are serialised by `dbrecon_mutex` too.
// Memory   Owns copies of the three texts of DBConnect, wiped before they are freed, and its two ODBC handles.
#pragma once

#include <pthread.h>
#include <sql.h>

#include <atomic>
#include <ctime>
#include <memory>
#include <mutex>

namespace zelvan {

// Results of DBConnect.  An ODBC return code that is neither a success nor SQL_ERROR is handed through as it is.
enum connect_result : int { kConnected = 0, kConnectFailed = -1 };

// Results of DBReConnect.  The return code of a failed SQLConnect is handed through as it is.
enum reconnect_result : int { kReconnected = 0, kReconnectTooSoon = 1, kReconnectNoHandle = -2 };

// Results of DBDisconnect.  The return code of the last release is handed through as it is.
enum disconnect_result : int { kDisconnected = 0, kDisconnectFailed = -1 };

// No reconnect is attempted until more than this many seconds have passed since the last successful one.
inline constexpr std::time_t kReconnectPause = 60;

// Overwrites a NUL-terminated text before it frees it.
struct WipeText {
  void operator()(SQLCHAR* text) const;
};

}  // namespace zelvan

class COTPDatabase {
 public:
  // Starts unconnected, with the current time as the time of the last reconnect.
  COTPDatabase();

  // Disconnects.
  virtual ~COTPDatabase();

  COTPDatabase(const COTPDatabase&) = delete;
  COTPDatabase& operator=(const COTPDatabase&) = delete;

  // Connects to a data source and notes how its DBMS reads text (see db/statements.h).
  //   dsn, uid, pwd  NUL-terminated data source name, user and password; copied; null counts as an empty text
  //   the lengths    not used
  // Returns 0; -1 when a step reported SQL_ERROR (no handle is kept and the object is unconnected); or the code of
  // SQLConnect when that is neither a success nor SQL_ERROR (the object then counts as connected all the same).
  // A connection that the object still holds is given back first.
  virtual int DBConnect(const SQLCHAR* dsn, SQLSMALLINT dsn_length, const SQLCHAR* uid, SQLSMALLINT uid_length,
                        const SQLCHAR* pwd, SQLSMALLINT pwd_length);

  // Frees the three texts and closes the connection.
  // Returns 0 when unconnected; -1 when SQLDisconnect or the release of the connection handle reported SQL_ERROR;
  // otherwise the return code of the release of the environment handle.
  virtual int DBDisconnect();

  // Replaces the connection by a new one to the same data source, unless the last successful reconnect (or the
  // construction) is kReconnectPause seconds or less ago.
  // Returns 1 (not attempted), 0 (reconnected), -2 (no new handle: the connection handle stays null), or the code of
  // the failed SQLConnect (the next call tries again).
  int DBReConnect();

  // Returns the handle that new statements may use: null when unconnected, or when a reconnect got no handle.
  [[nodiscard]] SQLHDBC connection() const { return connected_ != 0 ? connection_.load() : SQLHDBC{nullptr}; }

  // Keeps every other thread off the connection while the result lives.  The statement objects do so in each of their
  // calls, for drivers need it: the MariaDB driver closes a cursor on the connection while another thread reads its
  // result from it, and the SQLite driver keeps its statements in a list without a lock, whatever their `Threading` in
  // odbcinst.ini.  A caller that holds the connection over a select and the reading of its row waits once, not in each
  // call.  May be taken again by the thread that has it.  No other lock but `dbrecon_mutex` is taken inside, and no
  // log line is written: a disk that is full may keep that for ever.
  using Hold = std::unique_lock<std::recursive_mutex>;
  [[nodiscard]] Hold hold() const { return Hold(calls_mutex_); }

  // Returns how often the connection was closed by a reconnect, which frees its statements: a statement handle from
  // before must not be used again, since a new statement may have been given the same address.  Call it with a hold.
  [[nodiscard]] unsigned int closings() const { return closings_; }

 protected:
  // Takes over a copy of the connection handle of `source`, if it has one.
  void borrow_connection(const COTPDatabase& source);

  // Forgets the connection without touching it.
  void forget_connection();

 private:
  using Text = std::unique_ptr<SQLCHAR[], zelvan::WipeText>;

  static Text copy_of(const SQLCHAR* text);
  [[nodiscard]] bool allocate_handles();
  [[nodiscard]] SQLRETURN connect();
  void release_handles();
  void free_texts();

  Text dsn_;
  Text uid_;
  Text pwd_;
  SQLHENV environment_ = SQL_NULL_HENV;
  std::atomic<SQLHDBC> connection_{SQL_NULL_HDBC};  // a reconnect replaces it while other threads copy it
  std::atomic<int> connected_{0};                   // 1 once SQLConnect has returned anything but SQL_ERROR
  std::time_t last_reconnect_;                      // seconds, UTC; guarded by dbrecon_mutex
  mutable std::recursive_mutex calls_mutex_;        // see hold()
  unsigned int closings_ = 0;                       // see closings(); guarded by calls_mutex_
};

// The shared connection.
extern COTPDatabase otp_database;

// Serialises reconnects.  Taken with the connection held, and innermost.
extern pthread_mutex_t dbrecon_mutex;
