-- For several servers on one database: a code is accepted by one of them only.
--
--   sqlite3 zelvan.db < guard.sqlite.sql         (after schema.sqlite.sql; running it again changes nothing)
--
-- One server checks the codes of an account one at a time.  Two servers may check the same code at the same moment; the
-- second one's update of the token is then refused here, and with it the code: the counter of an event or time-stepped
-- token must grow, unless the update gives the token another key or type.
--
-- A challenge-response token is not covered: clearing a challenge says the same whether the answer was right or wrong, and
-- a refusal would count as a success in the failure count.  Send its users to one server.
--
-- To set a counter back without a new key: drop trigger keyinfo_guard; ...; and run this file again.

begin;

drop trigger if exists keyinfo_guard;
create trigger keyinfo_guard before update of hcounter, lcounter on keyinfo
when old.tktype in (1, 2) and new.tktype = old.tktype and new.userkey = old.userkey
 and (new.hcounter, new.lcounter) <= (old.hcounter, old.lcounter)
begin
  select raise(abort, 'keyinfo: this code is used');
end;

commit;
