#include "zelvanctl/config_keys.h"

#include <gtest/gtest.h>

using namespace zelvan::ctl;

TEST(ConfigKeys, EditDistanceCountsInsertionsDeletionsAndReplacements) {
  EXPECT_EQ(edit_distance("", ""), 0U);
  EXPECT_EQ(edit_distance("", "abc"), 3U);
  EXPECT_EQ(edit_distance("abc", ""), 3U);
  EXPECT_EQ(edit_distance("otp_dsn", "otp_dns"), 2U);
  EXPECT_EQ(edit_distance("kitten", "sitting"), 3U);
}

TEST(ConfigKeys, EveryKeyIsFoundInItsSectionAlone) {
  for (const zelvan::Setting& setting : zelvan::kSettings) {
    EXPECT_EQ(find_setting(setting.section, setting.key), &setting);
    EXPECT_EQ(find_setting("no section", setting.key), nullptr);
  }
}

TEST(ConfigKeys, EveryAddressIsAKeyOfTheSecrets) {
  ASSERT_NE(find_setting("share", "192.0.2.1"), nullptr);
  EXPECT_TRUE(is_secret(*find_setting("share", "192.0.2.1")));
}

TEST(ConfigKeys, PasswordsAreSecretsAndNamesAreNot) {
  for (const zelvan::Setting& setting : zelvan::kSettings) {
    const std::string_view key = setting.key;
    EXPECT_EQ(is_secret(setting), key == "otp_pwd" || key == "smtp_auth_pwd" || key == "0.0.0.0") << key;
  }
}

TEST(ConfigKeys, AddressesAreDottedAndWithoutLeadingZeros) {
  for (const char* right : {"0.0.0.0", "192.0.2.10", "255.255.255.255"}) EXPECT_TRUE(is_client_address(right)) << right;
  for (const char* wrong :
       {"", "192.0.2", "192.0.2.256", "192.0.2.010", "192.0.2.0/24", " 192.0.2.1", "::1", "gateway", "1.2.3.4.5"}) {
    EXPECT_FALSE(is_client_address(wrong)) << wrong;
  }
}

TEST(ConfigKeys, TheNearestKeyIsFoundForEveryKeyWithASlip) {
  for (const zelvan::Setting& setting : zelvan::kSettings) {
    if (setting.group == zelvan::SettingGroup::kShare) continue;
    const std::string word = std::string(setting.key) + "x";
    ASSERT_NE(nearest_key(word), nullptr) << word;
    EXPECT_EQ(nearest_key(word), &setting) << word;
  }
}

TEST(ConfigKeys, LetterCaseAndBlanksDoNotMatterForWhatIsNear) {
  EXPECT_STREQ(nearest_key(" Radius_Port ")->key, "radius_port");
  EXPECT_EQ(nearest_section("[Mail"), "mail");
  EXPECT_EQ(nearest_section(" radius server"), "Radius Server");
}

TEST(ConfigKeys, NothingIsNearAStrangeWord) {
  EXPECT_EQ(nearest_key("colour_of_the_sky"), nullptr);
  EXPECT_EQ(nearest_section("backup"), "");
}
