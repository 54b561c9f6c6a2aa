// The start-up log: "./srvlog.txt" in the working directory.
//
// Threads  Only the main thread may call it: it takes no lock.
#pragma once

// Appends one line: the UTC date and time as 19 characters, a space, `text` and a line feed.  Does nothing when the
// file cannot be opened (or `text` is null), and never reports a failure.
void srv_log(const char* text);
