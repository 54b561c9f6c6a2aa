// A statement object: runs SQL texts for one unit of work on a connection that it borrows.
//
// The order of use is: construct from &otp_database; ExecuteDirect; for a select FetchRow until it returns something
// other than kFetched, with GetData for columns 1, 2, 3 ... of each row; further ExecuteDirect calls as needed;
// destroy.
//
// Source   ODBC 3 call-level interface.
// Differs  The connection handle is copied once, at construction, and never refreshed.
// Threads  An object belongs to one thread; objects of different threads share the connection and wait for each other's
//          calls (COTPDatabase::hold).
// Memory   Owns its statement handle; never touches the borrowed connection.
#pragma once

#include <span>

#include "db/OTPDatabase.h"

namespace zelvan {

// Results of ExecuteDirect.
enum execute_result : int { kExecuted = 1, kNotExecuted = 0 };

// Results of FetchRow.
enum fetch_result : int {
  kFetched = 1,
  kNoData = 100,
  kFetchNoStatement = -1,
  kFetchError = -2,
  kFetchUnexpected = -3
};

// Results of GetData, DescribeCol and (failures only) ColuminRow.
enum column_result : int { kColumnRead = 1, kColumnNoStatement = -1, kColumnFailed = -2 };

}  // namespace zelvan

class CQENTDatabase : public COTPDatabase {
 public:
  // An object of its own, without a source: connects for itself through DBConnect.
  CQENTDatabase();

  // Borrows the connection of `source`, which must outlive the object.  With a null source, or one without a
  // connection, the object is unconnected for its whole life.
  explicit CQENTDatabase(COTPDatabase* source);

  // Closes and frees the open statement, then disconnects (a borrowed connection is only forgotten).
  ~CQENTDatabase() override;

  CQENTDatabase(const CQENTDatabase&) = delete;
  CQENTDatabase& operator=(const CQENTDatabase&) = delete;

  // As COTPDatabase::DBConnect; does nothing and returns 0 when the connection is borrowed.
  int DBConnect(const SQLCHAR* dsn, SQLSMALLINT dsn_length, const SQLCHAR* uid, SQLSMALLINT uid_length,
                const SQLCHAR* pwd, SQLSMALLINT pwd_length) override;

  // As COTPDatabase::DBDisconnect when the connection is the object's own.  When it is borrowed: frees the open
  // statement and forgets the connection.  Returns the return code of that release, or 0 when no statement was open.
  int DBDisconnect() override;

  // Runs a NUL-terminated SQL text.  A text whose first six characters are "select" (any case) leaves a statement open
  // for FetchRow; any other text runs to its end, and a result set that it has is discarded.
  // Returns 1, or 0: unconnected, a null text, or a failed step.  A failed allocation or execution (SQL_ERROR) asks the
  // source for a reconnect; the text is not run again.
  int ExecuteDirect(const char* sql);

  // Moves to the next row of the open select.
  // Returns kFetched (1), kNoData (100), kFetchNoStatement (-1), kFetchError (-2) or, for any other code of SQLFetch,
  // kFetchUnexpected (-3).
  int FetchRow();

  // Reads a column of the current row.
  //   column     from 1
  //   buffer     `length` bytes; a text that is longer comes cut, with its NUL, and counts as read
  //   indicator  out: length of the whole value in bytes, or SQL_NULL_DATA; may be null
  //   type       C type wanted, SQL_C_CHAR for text
  // Returns kColumnRead (1), kColumnNoStatement (-1) or kColumnFailed (-2).
  int GetData(unsigned short column, void* buffer, long length, long* indicator, short type);

  // Describes a column of the open select; the arguments are those of SQLDescribeCol.
  // Returns kColumnRead (1), kColumnNoStatement (-1) or kColumnFailed (-2).
  int DescribeCol(short column, unsigned char* name, short length, short* name_length, short* data_type,
                  unsigned long* column_size, short* decimal_digits, short* nullable);

  // Returns the number of columns of the open select, kColumnNoStatement (-1) or kColumnFailed (-2).
  int ColuminRow();

  // Keeps every other thread off the borrowed connection while the result lives: see COTPDatabase::hold.  Without a
  // source there is nobody else.
  [[nodiscard]] Hold hold_connection();

 private:
  enum class Execution { done, failed, needs_reconnect };
  Execution execute_select(const char* sql);
  Execution execute_update(const char* sql);
  [[nodiscard]] bool open_statement();
  SQLRETURN close_cursor();
  SQLRETURN free_statement();

  int borrowed_;  // 1: the connection is a copy of the source's, and must be neither closed nor freed
  SQLHSTMT statement_ = SQL_NULL_HSTMT;
  unsigned int statement_closings_ = 0;  // COTPDatabase::closings of the source when the statement was opened
  COTPDatabase* source_;                 // not owned; null when there is none; reconnects run on it
};

namespace zelvan {

// What became of a column.
enum class ColumnRead { read, null, failed };

// The longest text that read_text hands out, in bytes, without the NUL.
inline constexpr std::size_t kLongestColumnText = 255;

// Reads a column of the current row as text; a value longer than `out` (or kLongestColumnText) is cut and counts as
// read.
//   column  from 1
//   out     out: the text with its NUL; an empty text for NULL; untouched on failure
// Returns read, null (SQL NULL), or failed (no statement, no such column, `out` without room for the NUL).
[[nodiscard]] ColumnRead read_text(CQENTDatabase& database, unsigned short column, std::span<char> out);

}  // namespace zelvan
