#include "zelvanctl/config_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "zelvanctl/config_keys.h"

using namespace zelvan::ctl;
using testing::AllOf;
using testing::Contains;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using zelvan::kSettings;
using zelvan::Setting;
using zelvan::SettingGroup;
using zelvan::SettingKind;

namespace {

using Level = Finding::Level;

constexpr const char* kClient = "192.0.2.10";
constexpr const char* kSecret = "correct-horse-battery";

// A settings file with every key of the table, to be spoilt one line at a time.
class Sheet {
 public:
  Sheet() {
    for (const Setting& setting : kSettings) {
      const bool share = setting.group == SettingGroup::kShare;
      set(setting.section, share ? kClient : setting.key, share ? kSecret : good_value(setting));
    }
  }

  static std::string good_value(const Setting& setting) {
    const std::string_view key = setting.key;
    if (key == "smtp_auth_need") return "1";
    if (key == "mail_from") return "otp@example.org";
    if (key == "otp_smtp_server") return "192.0.2.25";
    return setting.kind == SettingKind::kNumber ? std::to_string(setting.number) : "text";
  }

  Sheet& set(const std::string& section, const std::string& key, const std::string& value) {
    return line(section, key, key + "=" + value);
  }
  // Puts a line of any form in place of a key's.
  Sheet& line(const std::string& section, const std::string& key, const std::string& text) {
    sections_[section][key] = text;
    return *this;
  }
  Sheet& unset(const std::string& section, const std::string& key) {
    sections_[section].erase(key);
    return *this;
  }

  [[nodiscard]] std::string text() const {
    std::string text;
    for (const auto& [name, items] : sections_) {
      text += "[" + name + "]\n";
      for (const auto& [key, item] : items) text += item + "\n";
    }
    return text;
  }
  [[nodiscard]] Findings findings() const { return check_settings(ConfigLines(text())); }

 private:
  std::map<std::string, std::map<std::string, std::string>> sections_;
};

auto Is(Level level, const std::string& where, const std::string& text) {
  return AllOf(Field(&Finding::level, level), Field(&Finding::where, HasSubstr(where)),
               Field(&Finding::text, HasSubstr(text)));
}

Findings findings_of(const std::string& text) { return check_settings(ConfigLines(text)); }

// The key under which a row of the table stands in a Sheet.
std::string key_of(const Setting& setting) { return setting.group == SettingGroup::kShare ? kClient : setting.key; }

}  // namespace

TEST(ConfigCheck, AGoodFileHasNoFindings) { EXPECT_THAT(Sheet().findings(), IsEmpty()); }

// ---- every row of the table of keys

class EveryKey : public testing::TestWithParam<Setting> {
 protected:
  const Setting& setting_ = GetParam();
  std::string section_ = setting_.section;
  std::string key_ = key_of(setting_);
  Sheet sheet_;
};

class EveryText : public EveryKey {};
class EveryNumber : public EveryKey {};

TEST_P(EveryKey, IsToldWhenMissingIfDemandedAndOnlyThen) {
  const Findings findings = sheet_.unset(section_, key_).findings();
  if (is_demanded(setting_)) {
    EXPECT_THAT(findings, Contains(Is(Level::error, key_, "is missing: the server ends at its start")));
  } else if (setting_.group == SettingGroup::kShare) {
    EXPECT_THAT(findings, Contains(Is(Level::error, "[share]", "no client gets an answer")));
  } else if (key_ == "otp_mail_need") {
    EXPECT_THAT(findings, Contains(Is(Level::warning, key_, "counts as 1")));
  } else {
    EXPECT_THAT(findings, IsEmpty());
  }
}

TEST_P(EveryKey, IsToldWhenIndented) {
  const auto level = setting_.group == SettingGroup::kShare ? Level::error : Level::warning;
  EXPECT_THAT(sheet_.line(section_, key_, " " + key_ + "=1").findings(),
              Contains(Is(level, key_, "is indented and never found")));
}

TEST_P(EveryKey, IsToldWithABlankBeforeTheEqualsSign) {
  EXPECT_THAT(
      sheet_.line(section_, key_, key_ + " =1").findings(),
      Contains(Is(setting_.group == SettingGroup::kShare ? Level::error : Level::warning, key_, "has a blank")));
}

TEST_P(EveryKey, IsToldWhenGivenTwice) {
  EXPECT_THAT(sheet_.line(section_, key_, key_ + "=1\n" + key_ + "=2").findings(),
              Contains(Is(Level::warning, key_, "is there since line")));
}

TEST_P(EveryKey, IsToldInAWrongSection) {
  const std::string other = section_ == "options" ? "mail" : "options";
  const auto level = setting_.group == SettingGroup::kShare ? Level::error : Level::warning;
  EXPECT_THAT(sheet_.unset(section_, key_).set(other, key_, "1").findings(),
              Contains(Is(level, key_, "belongs into section [" + section_ + "]")));
}

TEST_P(EveryKey, IsToldBeforeTheFirstSection) {
  EXPECT_THAT(findings_of(key_ + "=1\n" + sheet_.text()),
              Contains(Is(Level::warning, "line 1, " + key_, "before the first section")));
}

TEST_P(EveryKey, IsSuggestedForASlipOfTheFinger) {
  if (setting_.group == SettingGroup::kShare) {
    EXPECT_THAT(sheet_.set(section_, key_ + "1x", kSecret).findings(),
                Contains(Is(Level::error, key_ + "1x", "no IPv4 address")));
  } else {
    EXPECT_THAT(sheet_.set(section_, key_ + "x", "1").findings(),
                Contains(Is(Level::warning, key_ + "x", "Did you mean " + key_ + " in section [" + section_ + "]")));
  }
}

TEST_P(EveryKey, IsToldWithoutAnEqualsSign) {
  EXPECT_THAT(sheet_.line(section_, key_, key_ + " 1").findings(), Contains(Is(Level::warning, "line", "has no =")));
}

TEST_P(EveryText, IsToldBeyondItsLimitAndNotAtIt) {
  const auto limit = static_cast<std::size_t>(setting_.limit);
  const auto too_long = [&](const std::string& value) {
    return testing::Value(sheet_.set(section_, key_, value).findings(),
                          Contains(Is(Level::error, key_, "the limit is " + std::to_string(limit))));
  };
  EXPECT_FALSE(too_long(std::string(limit, 'x')));
  EXPECT_TRUE(too_long(std::string(limit + 1, 'x')));
}

TEST_P(EveryText, IsToldWithBlanksAtAnEndQuotesOrAComment) {
  const std::string value(16, 'x');
  EXPECT_THAT(sheet_.set(section_, key_, value + " ").findings(), Contains(Is(Level::warning, key_, "blank or tab")));
  EXPECT_THAT(sheet_.set(section_, key_, " " + value).findings(), Contains(Is(Level::warning, key_, "blank or tab")));
  EXPECT_THAT(sheet_.set(section_, key_, "\"" + value + "\"").findings(), Contains(Is(Level::warning, key_, "quotes")));
  EXPECT_THAT(sheet_.set(section_, key_, value + " ;c").findings(), Contains(Is(Level::warning, key_, "no comment")));
}

TEST_P(EveryNumber, IsToldWhenItIsNone) {
  for (const char* none : {"", "yes", "x1", "-"}) {
    const auto level =
        is_read(ConfigLines(sheet_.set(section_, key_, none).text()), setting_) ? Level::error : Level::warning;
    EXPECT_THAT(sheet_.findings(), Contains(Is(level, key_, "is no number and reads as 0"))) << none;
  }
}

TEST_P(EveryNumber, IsToldWithTextBehindItOrOutOfRange) {
  EXPECT_THAT(sheet_.set(section_, key_, "1 second").findings(),
              Contains(Is(Level::warning, key_, "has text behind the number and reads as 1")));
  EXPECT_THAT(sheet_.set(section_, key_, "4294967297").findings(),
              Contains(Is(Level::error, key_, "is out of range and reads as 1")));
}

namespace {

template <typename Wanted>
std::vector<Setting> rows(Wanted wanted) {
  std::vector<Setting> found;
  std::ranges::copy_if(kSettings, std::back_inserter(found), wanted);
  return found;
}

std::string row_name(const testing::TestParamInfo<Setting>& row) {
  return row.param.group == SettingGroup::kShare ? "client" : row.param.key;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(ConfigCheck, EveryKey, testing::ValuesIn(kSettings), row_name);
INSTANTIATE_TEST_SUITE_P(ConfigCheck, EveryText,
                         testing::ValuesIn(rows([](const Setting& s) { return s.kind == SettingKind::kText; })),
                         row_name);
INSTANTIATE_TEST_SUITE_P(ConfigCheck, EveryNumber,
                         testing::ValuesIn(rows([](const Setting& s) { return s.kind == SettingKind::kNumber; })),
                         row_name);

// ---- numbers with an effect that surprises

struct NumberCase {
  const char* key;
  const char* value;
  Level level;
  const char* text;
};

class Number : public testing::TestWithParam<NumberCase> {};

TEST_P(Number, IsTold) {
  const Setting& setting = *find_key(GetParam().key);
  EXPECT_THAT(Sheet().set(setting.section, setting.key, GetParam().value).findings(),
              Contains(Is(GetParam().level, GetParam().key, GetParam().text)));
}

INSTANTIATE_TEST_SUITE_P(ConfigCheck, Number,
                         testing::Values(NumberCase{"radius_port", "70000", Level::error, "takes port 4464"},
                                         NumberCase{"radius_port", "-1", Level::error, "takes port 65535"},
                                         NumberCase{"radius_port", "65536", Level::error, "no client knows"},
                                         NumberCase{"radius_port", "0", Level::error, "no client knows"},
                                         NumberCase{"radius_port", "8801", Level::warning, "synchronisation"},
                                         NumberCase{"otp_packetchecktime", "-1", Level::warning, "counts as 0"},
                                         NumberCase{"otp_packetchecktime", "61", Level::warning, "no answer"},
                                         NumberCase{"otp_wnd", "0", Level::error, "no code is tried"},
                                         NumberCase{"otp_wnd", "1001", Level::warning, "guessed"},
                                         NumberCase{"otp_logmode", "2", Level::warning, "commonloginfo"},
                                         NumberCase{"otp_logmode", "-1", Level::warning, "commonloginfo"},
                                         NumberCase{"otp_logcond", "0", Level::warning, "no outcome"},
                                         NumberCase{"otp_logcond", "4", Level::warning, "no outcome"},
                                         NumberCase{"otp_dbtype", "0", Level::warning, "plain text"},
                                         NumberCase{"otp_dbtype", "5", Level::warning, "plain text"},
                                         NumberCase{"otp_max_accum", "1", Level::warning, "first wrong code"},
                                         NumberCase{"otp_max_accum", "101", Level::error, "ever locked"},
                                         NumberCase{"otp_mail_need", "2", Level::error, "queued and never sent"},
                                         NumberCase{"otp_mail_need", "-1", Level::error, "queued and never sent"},
                                         NumberCase{"smtp_auth_need", "2", Level::warning, "counts as 1"},
                                         NumberCase{"otp_smtp_port", "0", Level::error, "no mail"},
                                         NumberCase{"otp_smtp_port", "65536", Level::error, "low 16 bits"},
                                         NumberCase{"otp_logsize", "0", Level::warning, "every write"},
                                         NumberCase{"otp_logsize", "2048", Level::warning, "wraps"},
                                         NumberCase{"otp_maxthread", "0", Level::warning, "counts as 1"},
                                         NumberCase{"otp_maxidletime", "0", Level::warning, "ends as soon"},
                                         NumberCase{"otp_keylen", "32", Level::warning, "not used"},
                                         NumberCase{"otp_qent100", "8", Level::warning, "not used"},
                                         NumberCase{"otp_qent200", "8", Level::warning, "not used"},
                                         NumberCase{"otp_qent300", "8", Level::warning, "not used"}));

TEST(ConfigCheck, NumbersAtTheirBordersAreFine) {
  for (const auto& [key, value] : std::vector<std::pair<const char*, const char*>>{{"radius_port", "1"},
                                                                                   {"radius_port", "65535"},
                                                                                   {"otp_packetchecktime", "60"},
                                                                                   {"otp_wnd", "1"},
                                                                                   {"otp_wnd", "1000"},
                                                                                   {"otp_logmode", "0"},
                                                                                   {"otp_logcond", "3"},
                                                                                   {"otp_dbtype", "4"},
                                                                                   {"otp_max_accum", "2"},
                                                                                   {"otp_max_accum", "100"},
                                                                                   {"otp_smtp_port", "65535"},
                                                                                   {"otp_logsize", "2047"},
                                                                                   {"otp_maxthread", "1"},
                                                                                   {"otp_maxidletime", "1"}}) {
    EXPECT_THAT(Sheet().set(find_key(key)->section, key, value).findings(), IsEmpty()) << key << "=" << value;
  }
}

// ---- settings that hang together

TEST(ConfigCheck, WithoutMailTheMailSettingsAreNotDemanded) {
  Sheet sheet;
  sheet.set("mail", "otp_mail_need", "0");
  for (const char* key : {"otp_smtp_server", "mail_from", "smtp_auth_user", "smtp_auth_pwd"}) sheet.unset("mail", key);
  EXPECT_THAT(sheet.findings(), IsEmpty());
}

TEST(ConfigCheck, WithoutALoginItsSettingsAreNotDemanded) {
  Sheet sheet;
  sheet.set("mail", "smtp_auth_need", "0").unset("mail", "smtp_auth_user").unset("mail", "smtp_auth_pwd");
  EXPECT_THAT(sheet.findings(), IsEmpty());
}

TEST(ConfigCheck, AMissingMailSectionIsDemandedByDefault) {
  EXPECT_THAT(findings_of("[DataBase]\notp_dsn=a\notp_uid=\notp_pwd=\n[share]\n192.0.2.1=correct-horse-battery\n"),
              AllOf(Contains(Is(Level::error, "[mail] otp_smtp_server", "without a word")),
                    Contains(Is(Level::error, "[mail] mail_from", "without a word")),
                    Contains(Is(Level::warning, "[mail] otp_mail_need", "counts as 1"))));
}

TEST(ConfigCheck, AValueThatIsNotReadIsToldAsSuch) {
  EXPECT_THAT(
      Sheet().set("options", "otp_logmode", "0").set("options", "otp_logpath", std::string(129, 'x')).findings(),
      Contains(Is(Level::warning, "otp_logpath", "not read")));
}

TEST(ConfigCheck, AnEmptyFileDemandsTheDatabase) {
  EXPECT_THAT(findings_of(""), Contains(Is(Level::error, "[DataBase] otp_dsn", "is missing")));
}

// ---- texts

TEST(ConfigCheck, ADataSourceNameBeyondTheDriverManagersLimitIsTold) {
  EXPECT_THAT(Sheet().set("DataBase", "otp_dsn", std::string(33, 'x')).findings(),
              Contains(Is(Level::error, "otp_dsn", "driver manager refuses it")));
  EXPECT_THAT(Sheet().set("DataBase", "otp_dsn", std::string(32, 'x')).findings(), IsEmpty());
  EXPECT_THAT(Sheet().set("DataBase", "otp_dsn", "").findings(), Contains(Is(Level::error, "otp_dsn", "is empty")));
}

TEST(ConfigCheck, MailTextsThatCannotWorkAreTold) {
  EXPECT_THAT(Sheet().set("mail", "mail_from", "").findings(), Contains(Is(Level::error, "mail_from", "is empty")));
  EXPECT_THAT(Sheet().set("mail", "mail_from", "<a@b>").findings(), Contains(Is(Level::warning, "mail_from", "bare")));
  EXPECT_THAT(Sheet().set("mail", "otp_smtp_server", "").findings(),
              Contains(Is(Level::error, "otp_smtp_server", "is empty")));
  EXPECT_THAT(Sheet().set("mail", "otp_smtp_server", "a:25").findings(),
              Contains(Is(Level::warning, "otp_smtp_server", "otp_smtp_port")));
}

// ---- secrets

TEST(ConfigCheck, SecretsAreToldByTheirLength) {
  const auto with = [](std::size_t length) {
    return Sheet().set("share", kClient, std::string(length, 'x')).findings();
  };
  EXPECT_THAT(with(0), Contains(Is(Level::error, kClient, "is empty")));
  EXPECT_THAT(with(15), Contains(Is(Level::warning, kClient, "has 15 characters")));
  EXPECT_THAT(with(16), IsEmpty());
  EXPECT_THAT(with(24), IsEmpty());
  EXPECT_THAT(with(25), Contains(Is(Level::warning, kClient, "synchronisation service")));
  EXPECT_THAT(with(56), Contains(Is(Level::warning, kClient, "synchronisation service")));
  EXPECT_THAT(with(57), Contains(Is(Level::error, kClient, "counts as missing")));
}

TEST(ConfigCheck, ASecretForEveryoneIsTold) {
  EXPECT_THAT(Sheet().set("share", "0.0.0.0", kSecret).findings(),
              Contains(Is(Level::warning, "0.0.0.0", "every address")));
}

TEST(ConfigCheck, NoFindingShowsASecret) {
  const std::string secret = "s3cret";
  const std::string text = "otp_pwd=" + secret + "\n[DataBase]\notp_pwd=" + secret + std::string(40, 'x') +
                           "\n otp_pwd=" + secret + "\notp_pwt=" + secret + "\n" + secret +
                           "\n[share]\n192.0.2.1=" + secret + "\n192.0.2.2 " + secret + "\ngateway=" + secret +
                           "\n#192.0.2.3=" + secret + "\n192.0.2.4=" + std::string(1010, 'x') + secret + "=" + secret +
                           "\n";
  for (const Finding& each : findings_of(text)) {
    EXPECT_THAT(each.where + each.text, Not(HasSubstr(secret)));
  }
}

// ---- the form of the file

TEST(ConfigCheck, LinesBeyondTheReadersBufferAreToldOnce) {
  const Findings findings = findings_of(Sheet().text() + "[options]\n;" + std::string(5000, 'x') + "\n");
  EXPECT_EQ(std::ranges::count_if(findings, [](const Finding& f) { return f.text.find("1022") != std::string::npos; }),
            1);
}

TEST(ConfigCheck, SectionsTwiceWithoutNameUnclosedOrUnknownAreTold) {
  const std::string text = Sheet().text();
  EXPECT_THAT(findings_of(text + "[mail]\n"), Contains(Is(Level::warning, "[mail]", "is there since line")));
  EXPECT_THAT(findings_of(text + "[]\n"), Contains(Is(Level::warning, "[]", "has no name")));
  EXPECT_THAT(findings_of(text + "[mial\n"), Contains(Is(Level::warning, "[mial]", "no closing ]")));
  EXPECT_THAT(findings_of(text + "[ mail]\n"), Contains(Is(Level::warning, "[ mail]", "Did you mean [mail]")));
  EXPECT_THAT(findings_of(text + "[backup]\nx=1\n"),
              Contains(Is(Level::warning, "[backup]", "no section of the server")));
}

TEST(ConfigCheck, CommentsWithTheWrongSignAreTold) {
  EXPECT_THAT(findings_of(Sheet().text() + "# a comment\n"), Contains(Is(Level::warning, "line", "use ;")));
}

TEST(ConfigCheck, MarksAndNulBytesAreTold) {
  EXPECT_THAT(findings_of("\xEF\xBB\xBF" + Sheet().text()), Contains(Is(Level::error, "line 1", "byte order mark")));
  EXPECT_THAT(findings_of(Sheet().text() + std::string("\0", 1)), Contains(Is(Level::warning, "line", "NUL")));
}

TEST(ConfigCheck, LinesThatEndInCrLfAreFine) {
  std::string text = Sheet().text();
  for (std::size_t at = 0; (at = text.find('\n', at)) != std::string::npos; at += 2) text.insert(at, "\r");
  EXPECT_THAT(findings_of(text), IsEmpty());
}
