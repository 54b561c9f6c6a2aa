// Making and releasing ODBC statement handles, one at a time.
//
// Some drivers keep the statements of a connection in a list that they change without a lock, and the driver manager
// does not always serialise these calls for them: with the SQLite driver, workers that allocate and free statements at
// once end in a crash.  So this one mutex covers just these calls.  Executing and fetching stay free of it.
//
// Threads  Any thread may call any function.  The mutex is the innermost one: nothing else is locked inside it.
#pragma once

#include <sql.h>

namespace zelvan {

// Allocates a statement on `connection`.  Returns the code of SQLAllocHandle; `statement` is set on success only.
SQLRETURN allocate_statement(SQLHDBC connection, SQLHSTMT& statement);

// Frees a statement.  Returns the code of SQLFreeHandle.
SQLRETURN free_statement(SQLHSTMT statement);

// Closes and frees a connection.
// Returns true when it was closed, which frees its statements too; false when the driver refused, as the SQLite driver
// does while a statement is left: connection and statements then stay, out of reach.
bool discard_connection(SQLHDBC connection);

}  // namespace zelvan
