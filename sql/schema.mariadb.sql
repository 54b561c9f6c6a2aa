-- The three tables of the server, for MariaDB 10.6 or later.
--
--   mariadb --execute='create database zelvan character set utf8mb4'
--   mariadb zelvan < schema.mariadb.sql
--
-- Running it again changes nothing.  The server only reads and updates users and tokens and adds audit rows; creating and
-- removing users and tokens is the administrator's task.
--
-- The role zelvan_daemon may do what the server does and nothing else.  The server's login gets it:
--
--   create user zelvan@localhost identified by '...';
--   grant zelvan_daemon to zelvan@localhost;
--   set default role zelvan_daemon for zelvan@localhost;
--
-- The collation tells names apart byte by byte, blanks at the end included.  A collation that takes two names for one
-- would let both count their failures and use their codes in one row.
--
-- All times are UTC.

create table if not exists userinfo (
  username    varchar(19) not null primary key
              comment 'Login name as sent in User-Name; the server takes at most 19 bytes'
              check (octet_length(username) between 1 and 19),
  serialnum   varchar(28) not null unique
              comment 'Serial number of the user''s token: one token, one user, also of a deleted row'
              check (octet_length(serialnum) between 1 and 28),
  islocked    tinyint     not null default 0
              comment '1 while the account is locked'
              check (islocked in (0, 1)),
  failaccum   tinyint     not null default 0
              comment 'Failed attempts in a row; the server reads two digits'
              check (failaccum between 0 and 99),
  preusedate  datetime
              comment 'Time (UTC) of the last attempt or unlock; a lock without a time stays',
  user_email  varchar(55)
              comment 'Address that is warned when the account is locked; null or empty for no mail'
              check (octet_length(user_email) <= 55),
  authtype    tinyint     not null default 1
              comment '2: the PIN is typed after the code; 1: the code alone'
              check (authtype between 0 and 9),
  pin         varchar(18)
              comment 'The static PIN; needed with authtype 2 only'
              check (octet_length(pin) between 1 and 18),
  isdeleted   tinyint     not null default 0
              comment '0: active; anything else hides the account from authentication',
  constraint userinfo_pin check (authtype <> 2 or pin is not null)
) engine = InnoDB character set utf8mb4 collate utf8mb4_nopad_bin comment 'One row a user account';

-- The server reads every column of a token, so none may be null.
create table if not exists keyinfo (
  serialnum  varchar(28)  not null primary key
             comment 'Serial number, as in userinfo'
             check (octet_length(serialnum) between 1 and 28),
  userkey    varchar(54)  not null
             comment 'HMAC key: the characters themselves are the key bytes, no hexadecimal, no Base64'
             check (octet_length(userkey) between 1 and 54),
  tktype     tinyint      not null
             comment '1 event token, 2 time-stepped token, 3 challenge-response token'
             check (tktype in (1, 2, 3)),
  hcounter   int unsigned not null default 0
             comment 'High 32 bits of the moving factor; type 3: 1 while a challenge is pending',
  lcounter   int unsigned not null default 0
             comment 'Low 32 bits of the moving factor; type 3: the pending challenge',
  predate    datetime     not null
             comment 'Time (UTC) of the last accepted code, from which type 2 counts; type 3: time of the challenge',
  diglen     tinyint      not null default 6
             comment 'Digits of a code'
             check (diglen between 6 and 10),
  authwnd    int          not null default 10
             comment 'How many codes ahead are tried; the setting otp_wnd caps it'
             check (authwnd >= 1),
  tmstep     int          not null default 0
             comment 'Seconds of a time step; type 2 only, 0 for the others'
             check (tmstep >= 0),
  constraint keyinfo_tmstep check (tktype <> 2 or tmstep > 0)
) engine = InnoDB character set utf8mb4 collate utf8mb4_nopad_bin comment 'One row a token';

-- The audit trail, written when the operation log file is off (otp_logmode other than 1).
--
-- When the update of a user row fails after a wrong code, the server adds a row by position with four values: they fill
-- the four columns that are visible to it.  A select * does not show the invisible ones; name them.
create table if not exists commonloginfo (
  id        bigint      not null auto_increment invisible primary key comment 'The order of the rows',
  optime    datetime    not null comment 'When (UTC)',
  operator  varchar(19) not null comment 'Who: the user name',
  loglev    int         not null comment 'Level, always 100',
  optype    int         invisible not null default 1 comment 'Kind of operation, always 1: authentication',
  remark    varchar(64) not null comment 'What: ''auth succeed'', ''auth failed.'' or ''Update userinfo failed.''',
  remoteip  varchar(15) invisible not null default '' comment 'The dotted address of the RADIUS client; empty: not known'
) engine = InnoDB character set utf8mb4 collate utf8mb4_nopad_bin comment 'The audit trail';

create role if not exists zelvan_daemon;
grant select, update (islocked, failaccum, preusedate) on userinfo to zelvan_daemon;
grant select, update (hcounter, lcounter, predate) on keyinfo to zelvan_daemon;
grant insert on commonloginfo to zelvan_daemon;
