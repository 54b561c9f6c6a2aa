-- For several servers on one database: a code is accepted by one of them only.
--
--   mariadb zelvan < guard.mariadb.sql           (after schema.mariadb.sql; running it again changes nothing)
--
-- One server checks the codes of an account one at a time.  Two servers may check the same code at the same moment; the
-- second one's update of the token is then refused here, and with it the code: the counter of an event or time-stepped
-- token must grow, unless the update gives the token another key or type.
--
-- A challenge-response token is not covered: clearing a challenge says the same whether the answer was right or wrong, and
-- a refusal would count as a success in the failure count.  Send its users to one server.
--
-- Triggers of MariaDB have no column list.  An update that leaves the counter as it is passes when it changes one of the
-- columns that only an administrator changes, which the server's update never does.
--
-- To set a counter back without a new key: drop trigger keyinfo_guard; ...; and run this file again.

delimiter //
create or replace trigger keyinfo_guard before update on keyinfo for each row
begin
  declare same_settings boolean
    default (new.serialnum, new.diglen, new.authwnd, new.tmstep) = (old.serialnum, old.diglen, old.authwnd, old.tmstep);
  if old.tktype in (1, 2) and new.tktype = old.tktype and new.userkey = old.userkey
     and (new.hcounter < old.hcounter or (new.hcounter = old.hcounter and new.lcounter < old.lcounter)
          or (new.hcounter = old.hcounter and new.lcounter = old.lcounter and same_settings)) then
    signal sqlstate '45000' set message_text = 'keyinfo: this code is used';
  end if;
end//
delimiter ;
