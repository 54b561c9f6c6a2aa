// A send(2) that fails on request, since a peer cannot make a send fail at a given step without a race.
#pragma once

namespace zelvan::test {

// Makes the n-th send(2) from now (1 = the next) fail with EPIPE; 0 lets all succeed.
void fail_send(int nth);

}  // namespace zelvan::test
