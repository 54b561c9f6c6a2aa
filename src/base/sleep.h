// Sleeping, in the one unit that the server uses.
#pragma once

// Sleeps `ms` milliseconds (usleep(3) of ms * 1000).  A signal may end the sleep early.  Any thread may call it.
void otp_sleep(unsigned long ms);
