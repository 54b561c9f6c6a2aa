-- The three tables of the server, for PostgreSQL 13 or later.
--
--   createdb --encoding=UTF8 --template=template0 zelvan
--   psql --set=ON_ERROR_STOP=1 --dbname=zelvan --file=schema.postgresql.sql
--
-- Running it again changes nothing.  The server only reads and updates users and tokens and adds audit rows; creating and
-- removing users and tokens is the administrator's task.
--
-- The role zelvan_daemon may do what the server does and nothing else.  The server's login is a member of it:
--
--   create role zelvan login password '...' in role zelvan_daemon;
--
-- All times are UTC.

begin;

-- One row a user account.
create table if not exists userinfo (
  username    varchar(19) not null primary key check (octet_length(username) between 1 and 19),
  serialnum   varchar(28) not null unique check (octet_length(serialnum) between 1 and 28),
  islocked    smallint    not null default 0 check (islocked in (0, 1)),
  failaccum   smallint    not null default 0 check (failaccum between 0 and 99),
  preusedate  timestamp(0),
  user_email  varchar(55) check (octet_length(user_email) <= 55),
  authtype    smallint    not null default 1 check (authtype between 0 and 9),
  pin         varchar(18) check (octet_length(pin) between 1 and 18),
  isdeleted   smallint    not null default 0,
  check (authtype <> 2 or pin is not null)
);

comment on table  userinfo            is 'One row a user account';
comment on column userinfo.username   is 'Login name as sent in User-Name; the server takes at most 19 bytes';
comment on column userinfo.serialnum  is 'Serial number of the user''s token: one token, one user, also of a deleted row';
comment on column userinfo.islocked   is '1 while the account is locked';
comment on column userinfo.failaccum  is 'Failed attempts in a row; the server reads two digits';
comment on column userinfo.preusedate is 'Time (UTC) of the last attempt or unlock; a lock without a time stays';
comment on column userinfo.user_email is 'Address that is warned when the account is locked; null or empty for no mail';
comment on column userinfo.authtype   is '2: the PIN is typed after the code; 1: the code alone';
comment on column userinfo.pin        is 'The static PIN; needed with authtype 2 only';
comment on column userinfo.isdeleted  is '0: active; anything else hides the account from authentication';

-- One row a token.  The server reads every column of it, so none may be null.
create table if not exists keyinfo (
  serialnum  varchar(28)  not null primary key check (octet_length(serialnum) between 1 and 28),
  userkey    varchar(54)  not null check (octet_length(userkey) between 1 and 54),
  tktype     smallint     not null check (tktype in (1, 2, 3)),
  hcounter   bigint       not null default 0 check (hcounter between 0 and 4294967295),
  lcounter   bigint       not null default 0 check (lcounter between 0 and 4294967295),
  predate    timestamp(0) not null,
  diglen     smallint     not null default 6 check (diglen between 6 and 10),
  authwnd    integer      not null default 10 check (authwnd >= 1),
  tmstep     integer      not null default 0 check (tmstep >= 0),
  check (tktype <> 2 or tmstep > 0)
);

comment on table  keyinfo           is 'One row a token';
comment on column keyinfo.serialnum is 'Serial number, as in userinfo';
comment on column keyinfo.userkey   is 'HMAC key: the characters themselves are the key bytes, no hexadecimal, no Base64';
comment on column keyinfo.tktype    is '1 event token, 2 time-stepped token, 3 challenge-response token';
comment on column keyinfo.hcounter  is 'High 32 bits of the moving factor; type 3: 1 while a challenge is pending';
comment on column keyinfo.lcounter  is 'Low 32 bits of the moving factor; type 3: the pending challenge';
comment on column keyinfo.predate   is 'Time (UTC) of the last accepted code, from which type 2 counts; type 3: time of the challenge';
comment on column keyinfo.diglen    is 'Digits of a code';
comment on column keyinfo.authwnd   is 'How many codes ahead are tried; the setting otp_wnd caps it';
comment on column keyinfo.tmstep    is 'Seconds of a time step; type 2 only, 0 for the others';

-- The audit trail, written when the operation log file is off (otp_logmode other than 1).
--
-- When the update of a user row fails after a wrong code, the server adds a row by position with four values: they fill
-- the first four columns, so the order of the columns matters, and the others need defaults.
create table if not exists commonloginfo (
  optime    timestamp(0) not null,
  operator  varchar(19)  not null,
  loglev    integer      not null,
  remark    varchar(64)  not null,
  optype    integer      not null default 1,
  remoteip  varchar(15)  not null default '',
  id        bigint       generated always as identity primary key
);

comment on table  commonloginfo          is 'The audit trail';
comment on column commonloginfo.optime   is 'When (UTC)';
comment on column commonloginfo.operator is 'Who: the user name';
comment on column commonloginfo.loglev   is 'Level, always 100';
comment on column commonloginfo.remark   is 'What: ''auth succeed'', ''auth failed.'' or ''Update userinfo failed.''';
comment on column commonloginfo.optype   is 'Kind of operation, always 1: authentication';
comment on column commonloginfo.remoteip is 'From where: the dotted address of the RADIUS client; empty when not known';
comment on column commonloginfo.id       is 'The order of the rows';

-- An owner who may make no roles can run this when an administrator has made the role.
do $$
begin
  if not exists (select from pg_roles where rolname = 'zelvan_daemon') then
    create role zelvan_daemon;
  end if;
exception
  when duplicate_object or unique_violation then null;  -- somebody else made it in the same moment
end $$;

revoke all on userinfo, keyinfo, commonloginfo from public;
grant select, update (islocked, failaccum, preusedate) on userinfo to zelvan_daemon;
grant select, update (hcounter, lcounter, predate) on keyinfo to zelvan_daemon;
grant insert on commonloginfo to zelvan_daemon;

commit;
