-- The three tables of the server, for SQLite 3.37 or later.
--
--   sqlite3 zelvan.db < schema.sqlite.sql
--
-- Running it again changes nothing.  The server only reads and updates users and tokens and adds audit rows; creating and
-- removing users and tokens is the administrator's task.
--
-- Data source (odbc.ini), so that the server and an administrator's shell can use the file at the same time:
--
--   [zelvan]
--   Driver=SQLite3
--   Database=/var/lib/zelvan/zelvan.db
--   JournalMode=WAL       readers and the writer do not block each other
--   SyncPragma=FULL       every commit reaches the disk.  NORMAL is several times faster, but a power cut may take the
--                         last commits back, and a code that was used in the last moments could be used once more.
--   Timeout=10000         milliseconds to wait for another process's lock; without it a statement fails at once
--
-- All times are UTC text, YYYY-MM-DD HH:MM:SS.  A check "x is datetime(x, '+0 days')" takes exactly that
-- form of a date that exists.

pragma journal_mode = wal;

begin;

-- One row a user account.
create table if not exists userinfo (
  -- Login name as sent in User-Name.  The server takes names of at most 19 bytes from the network.
  username    text    not null primary key check (length(cast(username as blob)) between 1 and 19),
  -- Serial number of the user's token.  One token, one user: also a deleted row keeps its token until it is removed.
  serialnum   text    not null unique check (length(cast(serialnum as blob)) between 1 and 28),
  -- 1 while the account is locked.
  islocked    integer not null default 0 check (islocked in (0, 1)),
  -- Failed attempts in a row; the server reads two digits.
  failaccum   integer not null default 0 check (failaccum between 0 and 99),
  -- Time of the last attempt or unlock; null before the first.  A locked account without a time stays locked.
  preusedate  text    check (preusedate is datetime(preusedate, '+0 days')),
  -- Address that is warned when the account is locked; null or empty for no mail.
  user_email  text    check (length(cast(user_email as blob)) <= 55),
  -- 2: the PIN is typed after the code; 1: the code alone.
  authtype    integer not null default 1 check (authtype between 0 and 9),
  -- The static PIN; needed with authtype 2 only.
  pin         text    check (length(cast(pin as blob)) between 1 and 18),
  -- 0: active; anything else hides the account from authentication.
  isdeleted   integer not null default 0,
  check (authtype <> 2 or pin is not null)
) strict;

-- One row a token.  The server reads every column of it, so none may be null.
create table if not exists keyinfo (
  -- Serial number, as in userinfo.
  serialnum  text    not null primary key check (length(cast(serialnum as blob)) between 1 and 28),
  -- HMAC key.  The characters themselves are the key bytes: no hexadecimal, no Base64.
  userkey    text    not null check (length(cast(userkey as blob)) between 1 and 54),
  -- 1 event token, 2 time-stepped token, 3 challenge-response token.
  tktype     integer not null check (tktype in (1, 2, 3)),
  -- High 32 bits of the moving factor; type 3: 1 while a challenge is pending.
  hcounter   integer not null default 0 check (hcounter between 0 and 4294967295),
  -- Low 32 bits of the moving factor; type 3: the pending challenge.
  lcounter   integer not null default 0 check (lcounter between 0 and 4294967295),
  -- Types 1 and 2: time of the last accepted code (type 2 counts its steps from here); type 3: time of the challenge.
  predate    text    not null check (predate is datetime(predate, '+0 days')),
  -- Digits of a code.
  diglen     integer not null default 6 check (diglen between 6 and 10),
  -- How many codes ahead are tried; the setting otp_wnd caps it.
  authwnd    integer not null default 10 check (authwnd between 1 and 2147483647),
  -- Seconds of a time step; type 2 only, 0 for the others.
  tmstep     integer not null default 0 check (tmstep between 0 and 2147483647),
  check (tktype <> 2 or tmstep > 0)
) strict;

-- The audit trail, written when the operation log file is off (otp_logmode other than 1).
--
-- When the update of a user row fails after a wrong code, the server adds a row by position with four values.  SQLite
-- refuses four values for six columns, so that one note is lost here; the other audit rows name their columns.
create table if not exists commonloginfo (
  -- When.
  optime    text    not null check (optime is datetime(optime, '+0 days')),
  -- Who: the user name.
  operator  text    not null,
  -- Level, always 100.
  loglev    integer not null,
  -- Kind of operation, always 1: authentication.
  optype    integer not null,
  -- What: 'auth succeed', 'auth failed.' or 'Update userinfo failed.'
  remark    text    not null,
  -- From where: the dotted address of the RADIUS client.
  remoteip  text    not null
) strict;

commit;
