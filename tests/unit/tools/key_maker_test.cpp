#include "zelvanctl/key_maker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <set>

#include "zelvanctl/fields.h"

using namespace zelvan::ctl;

TEST(KeyMaker, KeysAreLettersAndDigitsThatFitTheColumn) {
  const Secret key = make_key();
  EXPECT_EQ(key.reveal().size(), kKeyCharacters);
  EXPECT_LE(kKeyCharacters, 29U);  // what the synchronisation service reads
  EXPECT_EQ(key_problem(key.reveal()), "");
  EXPECT_TRUE(std::ranges::all_of(key.reveal(), [](unsigned char c) { return std::isalnum(c) != 0; }));
}

TEST(KeyMaker, KeysDiffer) {
  std::set<std::string> keys;
  for (int i = 0; i < 200; ++i) keys.insert(make_key().reveal());
  EXPECT_EQ(keys.size(), 200U);
}

TEST(KeyMaker, SerialNumbersFitTheColumn) {
  EXPECT_EQ(serial_problem(make_serial()), "");
  EXPECT_NE(make_serial(), make_serial());
}

// 100,000 draws from 3: each comes 33,333 times give or take 149 (one standard deviation); 2,000 is 13 of them.
TEST(KeyMaker, EveryCharacterIsAsLikely) {
  std::map<char, int> counts;
  for (const char c : random_text("abc", 100'000)) ++counts[c];
  ASSERT_EQ(counts.size(), 3U);
  for (const auto& [c, count] : counts) EXPECT_NEAR(count, 33'333, 2'000) << c;
}

TEST(KeyMaker, AnAlphabetOfAllBytesIsPossible) {
  std::string all(256, '\0');
  for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<char>(i);
  EXPECT_EQ(random_text(all, 1000).size(), 1000U);
}
