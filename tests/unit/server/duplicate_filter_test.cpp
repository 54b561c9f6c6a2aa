#include "server/duplicate_filter.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <random>
#include <tuple>

namespace {

constexpr int kStart = 1'700'000'000;

_pack_info request(std::uint16_t port, std::uint8_t identifier, int seconds) {
  return {port, {10, 0, 0, 7}, identifier, kStart + seconds};
}

using Key = std::tuple<std::uint16_t, std::uint8_t>;

}  // namespace

TEST(DuplicateFilter, FirstRequestIsServedAndRemembered) {
  std::vector<_pack_info> list;
  EXPECT_EQ(check(list, request(1000, 1, 0), 30), CHECK_SERVE);
  ASSERT_EQ(list.size(), 1U);
  EXPECT_EQ(list[0].time, kStart);
}

TEST(DuplicateFilter, RepeatInsideTheIntervalIsDroppedAndDoesNotRenewIt) {
  std::vector<_pack_info> list;
  (void)check(list, request(1000, 1, 0), 30);
  EXPECT_EQ(check(list, request(1000, 1, 10), 30), CHECK_DUPLICATE);
  EXPECT_EQ(check(list, request(1000, 1, 29), 30), CHECK_DUPLICATE);
  ASSERT_EQ(list.size(), 1U);
  EXPECT_EQ(list[0].time, kStart);
  EXPECT_EQ(check(list, request(1000, 1, 30), 30), CHECK_SERVE);
}

TEST(DuplicateFilter, FirstRepeatAfterTheIntervalIsServedAndRenewsIt) {
  std::vector<_pack_info> list;
  (void)check(list, request(1000, 1, 0), 30);
  EXPECT_EQ(check(list, request(1000, 1, 31), 30), CHECK_SERVE);
  ASSERT_EQ(list.size(), 1U);
  EXPECT_EQ(list[0].time, kStart + 31);
  EXPECT_EQ(check(list, request(1000, 1, 60), 30), CHECK_DUPLICATE);
}

TEST(DuplicateFilter, PortAddressAndIdentifierAllBelongToTheKey) {
  std::vector<_pack_info> list;
  (void)check(list, request(1000, 1, 0), 30);
  EXPECT_EQ(check(list, request(1001, 1, 0), 30), CHECK_SERVE);
  EXPECT_EQ(check(list, request(1000, 2, 0), 30), CHECK_SERVE);
  _pack_info other_client = request(1000, 1, 0);
  other_client.address[3] = 8;
  EXPECT_EQ(check(list, other_client, 30), CHECK_SERVE);
  EXPECT_EQ(list.size(), 4U);
}

TEST(DuplicateFilter, IntervalOfZeroServesEveryRequestAndKeepsOneRecordAtMost) {
  std::vector<_pack_info> list;
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(check(list, request(1000, 1, 0), 0), CHECK_SERVE);
    EXPECT_LE(list.size(), 1U);
  }
  EXPECT_EQ(check(list, request(1000, 2, 0), 0), CHECK_SERVE);
  EXPECT_LE(list.size(), 1U);
  EXPECT_EQ(check(list, request(1000, 2, 0), -5), CHECK_SERVE);
}

TEST(DuplicateFilter, OldRecordsGoWithAnyLaterCall) {
  std::vector<_pack_info> list;
  (void)check(list, request(1000, 1, 0), 30);
  (void)check(list, request(1000, 2, 20), 30);
  EXPECT_EQ(check(list, request(1000, 3, 40), 30), CHECK_SERVE);
  ASSERT_EQ(list.size(), 2U);
  EXPECT_EQ(list[0].identifier, 2);
  EXPECT_EQ(list[1].identifier, 3);
}

TEST(DuplicateFilter, RecordsBehindAnErasedOneAreExaminedToo) {
  std::vector<_pack_info> list;
  (void)check(list, request(1000, 1, 0), 100);
  (void)check(list, request(1000, 2, 0), 100);
  (void)check(list, request(1000, 3, 0), 100);
  (void)check(list, request(1000, 4, 90), 100);
  EXPECT_EQ(check(list, request(1000, 4, 120), 100), CHECK_DUPLICATE);
  ASSERT_EQ(list.size(), 1U);
  EXPECT_EQ(list[0].identifier, 4);
}

TEST(DuplicateFilter, ClockThatStepsBackCountsAsInsideTheInterval) {
  std::vector<_pack_info> list;
  (void)check(list, request(1000, 1, 100), 30);
  EXPECT_EQ(check(list, request(1000, 1, 0), 30), CHECK_DUPLICATE);
}

TEST(DuplicateFilter, IntervalRunsOnWhenTheSecondsWrap) {
  std::vector<_pack_info> list;
  const auto at = [](int seconds) {
    return _pack_info{1000, {10, 0, 0, 7}, 1, static_cast<std::int32_t>(0x7FFFFFFFU + static_cast<unsigned>(seconds))};
  };
  EXPECT_EQ(check(list, at(0), 30), CHECK_SERVE);
  EXPECT_EQ(check(list, at(29), 30), CHECK_DUPLICATE);
  EXPECT_EQ(check(list, at(30), 30), CHECK_SERVE);
  ASSERT_EQ(list.size(), 1U);
  EXPECT_EQ(list[0].time, at(30).time);
}

TEST(DuplicateFilter, OldRecordsGoWhenTheSecondsHaveWrapped) {
  std::vector<_pack_info> list{{1000, {10, 0, 0, 7}, 1, INT32_MAX}};
  const _pack_info record{1000, {10, 0, 0, 7}, 2, INT32_MIN + 100};
  EXPECT_EQ(check(list, record, 30), CHECK_SERVE);
  ASSERT_EQ(list.size(), 1U);
  EXPECT_EQ(list[0].identifier, 2);
}

// The laws, against a map that does the same the slow way.
TEST(DuplicateFilter, AgreesWithItsLawsOnRandomTraffic) {
  std::mt19937 random(20261121);
  constexpr int kInterval = 30;
  std::vector<_pack_info> list;
  std::map<Key, int> first_seen;
  int now = 0;
  for (int i = 0; i < 20'000; ++i) {
    now += static_cast<int>(random() % 3);
    const _pack_info record =
        request(static_cast<std::uint16_t>(random() % 5), static_cast<std::uint8_t>(random() % 8), now);
    const Key key{record.port, record.identifier};
    const auto seen = first_seen.find(key);
    const bool duplicate = seen != first_seen.end() && now - seen->second < kInterval;
    if (!duplicate) first_seen[key] = now;
    ASSERT_EQ(check(list, record, kInterval), duplicate ? CHECK_DUPLICATE : CHECK_SERVE);
    std::erase_if(first_seen, [&](const auto& entry) { return now - entry.second >= kInterval; });
    ASSERT_EQ(list.size(), first_seen.size());
  }
}

TEST(DuplicateFilter, SweepOfAHundredThousandRecordsIsOnePass) {
  std::vector<_pack_info> list;
  for (int i = 0; i < 100'000; ++i) {
    list.push_back(request(static_cast<std::uint16_t>(i / 256), static_cast<std::uint8_t>(i % 256), 0));
  }
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(check(list, request(60'000, 1, 1000), 30), CHECK_SERVE);
  // Moving up record by record would be 5 * 10^9 moves, many seconds; one pass is well below a millisecond.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
  EXPECT_EQ(list.size(), 1U);
}
