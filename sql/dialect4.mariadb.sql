-- The function dialect (otp_dbtype 4) on MariaDB 10.6.1 or later.
--
--   mariadb zelvan < dialect4.mariadb.sql
--
-- The plain dialect (otp_dbtype 1) needs none of this and is the one to choose.  With otp_dbtype 4 the server writes
-- to_date('...','yyyy-mm-dd hh24:mi:ss') and reads to_char(column,'yyyy-mm-dd hh24:mi:ss').  MariaDB knows to_char as it is
-- meant, and has no to_date.

delimiter //
create or replace function to_date(text varchar(32), format varchar(32)) returns datetime deterministic no sql
  return str_to_date(text, '%Y-%m-%d %H:%i:%s')//
delimiter ;

grant execute on function to_date to zelvan_daemon;
