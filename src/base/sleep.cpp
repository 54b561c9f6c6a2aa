// Holds nothing but otp_sleep, so that a test can link a sleep of its own in its place.
#include "base/sleep.h"

#include <unistd.h>

void otp_sleep(unsigned long ms) { (void)usleep(static_cast<useconds_t>(ms * 1000)); }
