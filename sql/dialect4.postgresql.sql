-- The function dialect (otp_dbtype 4) on PostgreSQL 13 or later.
--
--   psql --set=ON_ERROR_STOP=1 --dbname=zelvan --file=dialect4.postgresql.sql
--   alter role zelvan set search_path = zelvan_dialect4, pg_catalog, public;
--
-- The plain dialect (otp_dbtype 1) needs none of this and is the one to choose.  With otp_dbtype 4 the server writes
-- to_date('...','yyyy-mm-dd hh24:mi:ss') and reads to_char(column,'yyyy-mm-dd hh24:mi:ss').  PostgreSQL's own to_date loses
-- the time of day: every lock and every challenge would seem to date from midnight.  The function below keeps it; the
-- search path of the server's login puts it before PostgreSQL's own.  to_char is right as it is.

begin;

create schema if not exists zelvan_dialect4;

create or replace function zelvan_dialect4.to_date(text, text) returns timestamp(0)
language sql immutable strict parallel safe
as $$ select pg_catalog.to_timestamp($1, $2)::timestamp(0) $$;

grant usage on schema zelvan_dialect4 to zelvan_daemon;

commit;
