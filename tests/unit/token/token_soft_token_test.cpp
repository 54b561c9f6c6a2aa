#include "zelvan_token/soft_token.h"

#include "token_fixture.h"

namespace zelvan::token {
namespace {

using test::event_token;
using test::failure_of;
using test::kServerClock;
using test::received_token;
using test::timed_token;

ExitCode made_of(const SyncToken& received) {
  return failure_of([&] { (void)make_token("alice", "host:8801", received, 0); });
}

std::string code_of(const SoftToken& token, std::uint64_t counter) { return code_text(token, counter, false).reveal(); }

TEST(MakeToken, NeedsSixToTenDigits) {
  for (const int digits : {0, 5, 11, 255}) {
    SyncToken received = received_token();
    received.code_digits = static_cast<std::uint8_t>(digits);
    EXPECT_EQ(kMalformed, made_of(received)) << digits;
  }
  for (const int digits : {6, 10}) {
    SyncToken received = received_token();
    received.code_digits = static_cast<std::uint8_t>(digits);
    EXPECT_EQ(kOk, made_of(received)) << digits;
  }
}

TEST(MakeToken, NeedsAKey) {
  SyncToken received = received_token();
  received.key = {};
  EXPECT_EQ(kMalformed, made_of(received));
}

TEST(MakeToken, NeedsATimeStepOnlyWhereTimeCounts) {
  for (const std::array<char, 3> step :
       {std::array<char, 3>{}, {'0', '\0', '\0'}, {'-', '5', '\0'}, {'x', '1', '\0'}}) {
    SyncToken received = received_token();
    received.time_step = step;
    EXPECT_EQ(kOk, made_of(received));
    received.token_type = SYNC_TIME_STEPPED;
    EXPECT_EQ(kMalformed, made_of(received));
  }
}

TEST(MakeToken, TakesTheCounterFromBothHalves) {
  SyncToken received = received_token();
  received.high_counter = 0xFFFFFFFF;
  received.low_counter = 0xFFFFFFFE;
  const SoftToken token = make_token("alice", "h:1", received, 0);
  EXPECT_EQ(0xFFFFFFFFFFFFFFFEU, token.base);
  EXPECT_EQ(0xFFFFFFFFFFFFFFFEU, token.next);
}

TEST(MakeToken, CountsEventsForEveryUnknownType) {
  SyncToken received = received_token();
  received.token_type = 0;
  EXPECT_EQ(Kind::event, make_token("alice", "h:1", received, 0).kind);
  received.token_type = 9;
  EXPECT_EQ(Kind::event, make_token("alice", "h:1", received, 0).kind);
}

TEST(MakeToken, HasNothingToGoOnFromBehindAnAnsweredChallenge) {
  SyncToken received = received_token();
  received.token_type = SYNC_CHALLENGE_RESPONSE;
  received.low_counter = 76499;
  const SoftToken token = make_token("alice", "h:1", received, 0);
  EXPECT_EQ(Kind::challenge, token.kind);
  EXPECT_EQ(0U, token.next);
}

TEST(MakeToken, KeepsTheDistanceOfTheClocks) {
  const SoftToken behind = make_token("alice", "h:1", received_token(), kServerClock - 3600);
  EXPECT_EQ(3600, behind.clock_offset);
  EXPECT_EQ(kServerClock, server_time(behind, kServerClock - 3600));
  EXPECT_EQ(-3600, make_token("alice", "h:1", received_token(), kServerClock + 3600).clock_offset);
}

// RFC 4226 appendix D.
TEST(CodeText, IsThatOfTheRfc) {
  const SoftToken token = event_token();
  EXPECT_EQ("755224", code_of(token, 0));
  EXPECT_EQ("287082", code_of(token, 1));
  EXPECT_EQ("520489", code_of(token, 9));
}

TEST(CodeText, UsesAllBitsOfTheCounter) {
  const SoftToken token = event_token();
  EXPECT_NE(code_of(token, 1), code_of(token, (std::uint64_t{1} << 32U) + 1));
}

TEST(CodeText, HasTheDigitsOfTheToken) {
  SoftToken token = event_token();
  for (int digits = 6; digits <= 10; ++digits) {
    token.digits = digits;
    EXPECT_EQ(static_cast<std::size_t>(digits), code_of(token, 0).size());
  }
}

TEST(CodeText, EndsInThePinOnlyWhenAskedAndWanted) {
  SoftToken token = event_token();
  EXPECT_EQ("755224", code_text(token, 0, false).reveal());
  EXPECT_EQ("7552244711", code_text(token, 0, true).reveal());
  token.pin_follows = false;
  EXPECT_EQ("755224", code_text(token, 0, true).reveal());
}

TEST(EventToken, HandsOutOneCounterAfterTheOther) {
  SoftToken token = event_token();
  EXPECT_EQ(1U, draw_counter(token, 0).counter);
  EXPECT_EQ(2U, draw_counter(token, 0).counter);
  EXPECT_EQ(3U, token.next);
}

TEST(EventToken, WrapsBehindTheLargestCounter) {
  SoftToken token = event_token();
  token.next = UINT64_MAX;
  EXPECT_EQ(UINT64_MAX, draw_counter(token, 0).counter);
  EXPECT_EQ(0U, draw_counter(token, 0).counter);
}

TEST(TimeSteppedToken, StartsWithTheFetchedCounter) {
  SoftToken token = timed_token();
  const Draw draw = draw_counter(token, kServerClock);
  EXPECT_EQ(100U, draw.counter);
  EXPECT_FALSE(draw.ahead);
  EXPECT_EQ(60, draw.seconds_left);
}

TEST(TimeSteppedToken, CountsWholeStepsSinceTheFetch) {
  for (const auto& [seconds, counter, left] :
       {std::tuple{59, 100U, 1}, {60, 101U, 60}, {61, 101U, 59}, {600, 110U, 60}}) {
    SoftToken token = timed_token();
    const Draw draw = draw_counter(token, kServerClock + seconds);
    EXPECT_EQ(counter, draw.counter) << seconds;
    EXPECT_EQ(left, draw.seconds_left) << seconds;
  }
}

TEST(TimeSteppedToken, FollowsTheServersClock) {
  SyncToken received = received_token();
  received.token_type = SYNC_TIME_STEPPED;
  SoftToken token = make_token("alice", "h:1", received, kServerClock - 5000);
  EXPECT_EQ(1U + 2U, draw_counter(token, kServerClock - 5000 + 120).counter);
}

TEST(TimeSteppedToken, GivesTheNextStepToTheSecondAskerAndSaysSo) {
  SoftToken token = timed_token();
  (void)draw_counter(token, kServerClock + 10);
  const Draw second = draw_counter(token, kServerClock + 20);
  EXPECT_EQ(101U, second.counter);
  EXPECT_TRUE(second.ahead);
  EXPECT_EQ(100, second.seconds_left);
}

TEST(TimeSteppedToken, LetsTheThirdAskerWait) {
  SoftToken token = timed_token();
  (void)draw_counter(token, kServerClock);
  (void)draw_counter(token, kServerClock);
  const Draw third = draw_counter(token, kServerClock + 20);
  EXPECT_EQ(40, third.wait);
  EXPECT_EQ(102U, token.next);
  EXPECT_EQ(1, draw_counter(token, kServerClock + 59).wait);
  const Draw later = draw_counter(token, kServerClock + 60);
  EXPECT_EQ(0, later.wait);
  EXPECT_EQ(102U, later.counter);
}

TEST(TimeSteppedToken, ReturnsToTheClockByItself) {
  SoftToken token = timed_token();
  (void)draw_counter(token, kServerClock);
  (void)draw_counter(token, kServerClock);
  const Draw draw = draw_counter(token, kServerClock + 180);
  EXPECT_EQ(103U, draw.counter);
  EXPECT_FALSE(draw.ahead);
}

TEST(TimeSteppedToken, NeverGivesACounterTwiceWhateverTheClockDoes) {
  SoftToken token = timed_token();
  EXPECT_EQ(110U, draw_counter(token, kServerClock + 600).counter);
  const Draw after_setting_back = draw_counter(token, kServerClock);
  EXPECT_EQ(600, after_setting_back.wait);
  EXPECT_EQ(111U, token.next);
}

TEST(TimeSteppedToken, TakesATimeBeforeTheFetchAsTheFetch) {
  SoftToken token = timed_token();
  const Draw draw = draw_counter(token, kServerClock - 90);
  EXPECT_EQ(100U, draw.counter);
  EXPECT_FALSE(draw.ahead);
  EXPECT_EQ(150, draw.seconds_left);
}

TEST(TimeSteppedToken, CrossesTheLargestCounter) {
  SoftToken token = timed_token();
  token.base = token.next = UINT64_MAX;
  EXPECT_EQ(UINT64_MAX, draw_counter(token, kServerClock).counter);
  EXPECT_EQ(0U, draw_counter(token, kServerClock).counter);
  EXPECT_EQ(60, draw_counter(token, kServerClock).wait);
  EXPECT_EQ(1U, draw_counter(token, kServerClock + 120).counter);
}

// The server as it counts: a window of ten codes, placed half back from the steps since the last accepted code.
struct Server {
  std::uint64_t counter = 100;
  std::int64_t since = kServerClock;
  std::int64_t window = 10;

  bool accepts(std::uint64_t offered, std::int64_t now) {
    const std::int64_t steps = (now - since) / 60;
    const std::uint64_t first = counter + static_cast<std::uint64_t>(std::max<std::int64_t>(0, steps - window / 2));
    if (offered < first || offered >= first + static_cast<std::uint64_t>(window)) return false;
    counter = offered + 1;
    since = now;
    return true;
  }
};

// Draws at irregular times, and lets the server see only some of the codes, late.
bool stays_in_step(std::int64_t window, unsigned int seed) {
  SoftToken token = timed_token();
  Server server;
  server.window = window;
  std::int64_t now = kServerClock;
  for (int i = 0; i < 2000; ++i) {
    seed = seed * 1664525U + 1013904223U;
    const unsigned int chance = seed >> 16U;
    now += chance % 7 == 0 ? 86400 + chance % 100000 : chance % 150;
    const Draw draw = draw_counter(token, now);
    if (draw.wait != 0 || chance % 3 == 0) continue;
    now += chance % 20;
    if (!server.accepts(draw.counter, now)) return false;
  }
  return true;
}

TEST(TimeSteppedToken, NeverLosesTheServersWindow) {
  for (unsigned int seed = 1; seed <= 50; ++seed) EXPECT_TRUE(stays_in_step(6, seed)) << seed;
}

TEST(TimeSteppedToken, NeedsMoreThanOneCodeOfWindow) {
  bool every = true;
  for (unsigned int seed = 1; seed <= 50; ++seed) every = every && stays_in_step(1, seed);
  EXPECT_FALSE(every);
}

}  // namespace
}  // namespace zelvan::token
