#include "otp/challenge.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <latch>
#include <thread>
#include <vector>

using zelvan::draw_pair;
using zelvan::radius_challenge;

TEST(Challenge, PairIsWhatTheGeneratorGivesAfterItsSeed) {
  const auto pair = draw_pair(1700000000);
  std::srand(1700000000U);
  EXPECT_EQ(pair.r1, std::rand());
  EXPECT_EQ(pair.r2, std::rand());
}

TEST(Challenge, OneSecondGivesOnePair) {
  const auto first = draw_pair(1700000000);
  (void)draw_pair(1700000001);
  const auto second = draw_pair(1700000000);
  EXPECT_EQ(first.r1, second.r1);
  EXPECT_EQ(first.r2, second.r2);
}

TEST(Challenge, DifferentSecondsGiveDifferentPairs) {
  const auto first = draw_pair(1700000000);
  const auto second = draw_pair(1700000001);
  EXPECT_FALSE(first.r1 == second.r1 && first.r2 == second.r2);
}

TEST(Challenge, OneSecondGivesOnePairWhateverOtherThreadsDraw) {
  constexpr int kThreads = 4;
  std::vector<zelvan::RandomPair> expected;
  for (int t = 0; t < kThreads; ++t) expected.push_back(draw_pair(1000 + t));

  std::vector<int> wrong(kThreads, 0);
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const auto index = static_cast<std::size_t>(t);
      start.arrive_and_wait();
      for (int i = 0; i < 20000; ++i) {
        const auto pair = draw_pair(1000 + t);
        if (pair.r1 != expected[index].r1 || pair.r2 != expected[index].r2) ++wrong[index];
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong, std::vector<int>(kThreads, 0));
}

TEST(Challenge, LeastNumberIs1001) {
  EXPECT_EQ(radius_challenge({0, 0}), 1001U);
  EXPECT_EQ(radius_challenge({9999, 9999}), 1001U);
}

TEST(Challenge, GreatestNumberIs10008999) { EXPECT_EQ(radius_challenge({9998, 9998}), 10008999U); }

TEST(Challenge, BothNumbersCount) {
  EXPECT_EQ(radius_challenge({1, 0}), 2001U);
  EXPECT_EQ(radius_challenge({0, 1}), 1002U);
  EXPECT_EQ(radius_challenge({RAND_MAX, RAND_MAX}), (2147483647U % 9999U + 1U) * 1000U + 2147483647U % 9999U + 1U);
}
