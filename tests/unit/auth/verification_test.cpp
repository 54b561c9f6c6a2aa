// Codes, windows, PINs and the challenge dialogue, from the packet to the token's row.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "auth_fixture.h"
#include "config/settings.h"

using namespace zelvan::test;  // NOLINT: the fixture's words

namespace {

constexpr int kAccept = 2;
constexpr int kReject = 3;
constexpr int kChallenge = 11;

bool executed_once(const std::string& statement) { return std::ranges::count(odbc_executed(), statement) == 1; }

bool token_untouched() {
  return std::ranges::none_of(odbc_executed(), [](const auto& sql) { return sql.starts_with("update keyinfo"); });
}

class Verification : public AuthTest {};

}  // namespace

// ---- event tokens

TEST_F(Verification, EveryCodeOfTheWindowIsAcceptedAndMovesTheTokenPastIt) {
  for (const std::uint32_t factor : {5U, 6U, 7U}) {
    EXPECT_EQ(login(code(factor)).code(), kAccept) << factor;
    EXPECT_TRUE(executed_once(sql::update_token(0, factor + 1))) << factor;
  }
}

TEST_F(Verification, CodesBesideTheWindowAreRejectedWithoutATokenUpdate) {
  EXPECT_EQ(login(code(4)).code(), kReject);
  EXPECT_EQ(login(code(8)).code(), kReject);
  EXPECT_TRUE(token_untouched());
}

TEST_F(Verification, UsedCodeAndSkippedCodeAreRefusedThereafter) {
  account.keep_updated();
  EXPECT_EQ(resolve(client.pap("alice", code(6))).code(), kAccept);
  EXPECT_EQ(*account.token.lcounter, "7");
  EXPECT_EQ(resolve(client.pap("alice", code(6))).code(), kReject);
  EXPECT_EQ(resolve(client.pap("alice", code(5))).code(), kReject);
  EXPECT_EQ(resolve(client.pap("alice", code(7))).code(), kAccept);
  EXPECT_EQ(*account.token.lcounter, "8");
}

TEST_F(Verification, SmallerOfTokenWindowAndSettingCounts) {
  account.token.authwnd = "30";
  ng_wnd = 2;
  EXPECT_EQ(login(code(6)).code(), kAccept);
  EXPECT_EQ(login(code(7)).code(), kReject);
  account.token.authwnd = "1";
  EXPECT_EQ(login(code(5)).code(), kAccept);
  EXPECT_EQ(login(code(6)).code(), kReject);
}

TEST_F(Verification, WindowBelowOneRejectsEveryCode) {
  for (const char* window : {"0", "-1"}) {
    account.token.authwnd = window;
    EXPECT_EQ(login(code(5)).code(), kReject);
  }
  account.token.authwnd = "3";
  for (const int window : {0, -1}) {
    ng_wnd = window;
    EXPECT_EQ(login(code(5)).code(), kReject);
  }
  EXPECT_TRUE(token_untouched());
}

TEST_F(Verification, WindowCrosses32Bits) {
  account.token.lcounter = "4294967295";
  EXPECT_EQ(login(code(4294967295U)).code(), kAccept);
  EXPECT_TRUE(executed_once(sql::update_token(1, 0)));
  EXPECT_EQ(login(code(4294967296U)).code(), kAccept);
  EXPECT_TRUE(executed_once(sql::update_token(1, 1)));
}

TEST_F(Verification, CounterWrapsAfter64Bits) {
  account.token.hcounter = "4294967295";
  account.token.lcounter = "4294967295";
  EXPECT_EQ(login(code(0)).code(), kAccept);
  EXPECT_TRUE(executed_once(sql::update_token(0, 1)));
}

TEST_F(Verification, FirstMatchOfTheWindowWins) {
  account.token.hcounter = "0";
  account.token.lcounter = "0";
  account.token.authwnd = "5000";
  ng_wnd = 5000;
  std::uint32_t second = 1;  // the first factor whose code was there before
  std::uint32_t first = 0;
  std::vector<std::string> codes{code(0)};
  for (;; ++second) {
    const std::string next = code(second);
    const auto earlier = std::ranges::find(codes, next);
    if (earlier != codes.end()) {
      first = static_cast<std::uint32_t>(earlier - codes.begin());
      break;
    }
    codes.push_back(next);
    ASSERT_LT(second, 5000U);
  }
  EXPECT_EQ(login(codes[first]).code(), kAccept);
  EXPECT_TRUE(executed_once(sql::update_token(0, first + 1)));
}

// ---- digits and PIN

TEST_F(Verification, CodesHaveSixToTenDigits) {
  for (const char* digits : {"6", "7", "8", "9", "10"}) {
    account.token.diglen = digits;
    EXPECT_EQ(code(5).size(), static_cast<std::size_t>(std::stoi(digits)));
    EXPECT_EQ(login(code(5)).code(), kAccept) << digits;
  }
}

TEST_F(Verification, TokenOfOtherDigitsRejectsWhateverIsSent) {
  for (const char* digits : {"5", "11", "0", "-6"}) {
    account.token.diglen = digits;
    for (const std::string& password : {std::string(), hotp("12345678901234567890", 5, 6), std::string(11, '0')}) {
      EXPECT_EQ(login(password).code(), kReject) << digits;
    }
  }
  EXPECT_TRUE(token_untouched());
}

TEST_F(Verification, SettingsOfCodeLengthTakeNoPart) {
  std::ranges::fill(ng_pwdlen, 8);
  ng_otpkeylen = 4;
  EXPECT_EQ(login(code(5)).code(), kAccept);
}

TEST_F(Verification, PinFollowsTheCode) {
  account.user.authtype = "2";
  EXPECT_EQ(login(code(5) + "9876").code(), kAccept);
  EXPECT_TRUE(executed_once(sql::update_token(0, 6)));
}

TEST_F(Verification, PinAloneCodeAloneAndPinBeforeCodeAreRejected) {
  account.user.authtype = "2";
  for (const std::string& password : {std::string("9876"), code(5), "9876" + code(5), code(5) + "98760",
                                      code(5) + "987", code(5) + "9875", std::string()}) {
    EXPECT_EQ(login(password).code(), kReject) << password;
  }
  EXPECT_TRUE(token_untouched());
}

TEST_F(Verification, PinTakesNoPartForOtherAuthTypes) {
  account.user.authtype = "1";
  EXPECT_EQ(login(code(5) + "9876").code(), kReject);
  EXPECT_EQ(login(code(5)).code(), kAccept);
}

TEST_F(Verification, LongestCodeWithLongestPinIsAcceptedInTwoBlocks) {
  account.user.authtype = "2";
  account.user.pin = std::string(18, '7');
  account.token.diglen = "10";
  EXPECT_EQ(login(code(5) + std::string(18, '7')).code(), kAccept);
}

TEST_F(Verification, SixteenAndSeventeenCharactersAreComparedWhole) {
  account.user.authtype = "2";
  for (const std::size_t length : {10U, 11U}) {  // behind six digits
    account.user.pin = std::string(length, '1');
    EXPECT_EQ(login(code(5) + std::string(length, '1')).code(), kAccept) << length;
    EXPECT_EQ(login(code(5) + std::string(length - 1, '1') + "2").code(), kReject) << length;
  }
}

TEST_F(Verification, EmptyPinIsTheCodeAlone) {
  account.user.authtype = "2";
  account.user.pin = "";
  EXPECT_EQ(login(code(5)).code(), kAccept);
}

TEST_F(Verification, GenerateotpRefusesNullAndUnusableDigits) {
  CAnalyseAuthData analyser;
  std::array<char, 40> out{};
  std::strcpy(analyser.token_key, "12345678901234567890");
  analyser.code_digits = 6;
  EXPECT_EQ(analyser.generateotp(nullptr), 0);
  analyser.code_digits = 5;
  EXPECT_EQ(analyser.generateotp(out.data()), 0);
  analyser.code_digits = 11;
  EXPECT_EQ(analyser.generateotp(out.data()), 0);
}

// RFC 4226 appendix D, counters 0 and 1.
TEST_F(Verification, GenerateotpWritesTheCodeAndThePinBehindIt) {
  CAnalyseAuthData analyser;
  std::array<char, 40> out{};
  std::strcpy(analyser.token_key, "12345678901234567890");
  analyser.code_digits = 6;
  EXPECT_EQ(analyser.generateotp(out.data()), 1);
  EXPECT_STREQ(out.data(), "755224");
  std::strcpy(analyser.pin, "9876");
  analyser.moving_factor[7] = 1;
  analyser.auth_type = 2;
  EXPECT_EQ(analyser.generateotp(out.data()), 1);
  EXPECT_STREQ(out.data(), "2870829876");
}

// ---- other tokens

TEST_F(Verification, TokenOfAnotherTypeIsRejected) {
  for (const char* type : {"0", "4", "x", "-1"}) {
    account.token.tktype = type;
    EXPECT_EQ(login(code(5)).code(), kReject) << type;
  }
  EXPECT_TRUE(token_untouched());
}

TEST_F(Verification, TimeSteppedTokenScansAroundTheFactorOfNow) {
  account.token.tktype = "2";
  account.token.predate = date(kNow - 300);
  account.token.authwnd = "10";
  // Ten steps have passed and half a window is five: factors 10 to 19.
  for (const std::uint32_t factor : {10U, 15U, 19U}) {
    EXPECT_EQ(login(code(factor)).code(), kAccept) << factor;
    EXPECT_TRUE(executed_once(sql::update_token(0, factor + 1)));
  }
  EXPECT_EQ(login(code(9)).code(), kReject);
  EXPECT_EQ(login(code(20)).code(), kReject);
}

TEST_F(Verification, TimeSteppedTokenIsNeverScannedBeforeItsStoredFactor) {
  account.token.tktype = "2";
  account.token.predate = date(kNow - 95);
  account.token.authwnd = "10";
  EXPECT_EQ(login(code(4)).code(), kReject);
  EXPECT_EQ(login(code(5)).code(), kAccept);
  EXPECT_EQ(login(code(14)).code(), kAccept);
  EXPECT_EQ(login(code(15)).code(), kReject);
}

TEST_F(Verification, TimeSteppedTokenWithoutAUsableStepIsRejected) {
  account.token.tktype = "2";
  for (const char* step : {"0", "-1"}) {
    account.token.tmstep = step;
    EXPECT_EQ(login(code(5)).code(), kReject);
  }
}

// ---- how the password is sent

TEST_F(Verification, ChapIsCheckedForEventAndTimeSteppedTokens) {
  for (const char* type : {"1", "2"}) {
    account.token.tktype = type;
    account.token.predate = date(kNow);
    for (const auto& challenge : {std::optional<std::string>(), std::optional<std::string>("12345"),
                                  std::optional<std::string>(std::string(126, 'c'))}) {
      EXPECT_EQ(send(client.chap("alice", code(5), challenge)).code(), kAccept) << type;
      EXPECT_EQ(send(client.chap("alice", code(4), challenge)).code(), kReject) << type;
    }
  }
}

TEST_F(Verification, ChapTakesThePinToo) {
  account.user.authtype = "2";
  EXPECT_EQ(send(client.chap("alice", code(7) + "9876")).code(), kAccept);
  EXPECT_EQ(send(client.chap("alice", code(7))).code(), kReject);
}

TEST_F(Verification, PasswordAttributeThatComesLastIsJudged) {
  const Packet right_pap = attribute(2, client.hide(code(5)));
  const Packet wrong_pap = attribute(2, client.hide("000000"));
  const Packet right_chap = [&] {
    const Packet whole = client.chap("alice", code(5));
    return Packet(whole.begin() + 27, whole.end());
  }();
  const Packet wrong_chap = attribute(3, std::string(17, 'x'));
  const Packet name = attribute(1, "alice");
  EXPECT_EQ(send(client.request(name + wrong_pap + right_chap)).code(), kAccept);
  EXPECT_EQ(send(client.request(name + right_pap + wrong_chap)).code(), kReject);
  EXPECT_EQ(send(client.request(name + wrong_chap + right_pap)).code(), kAccept);
  EXPECT_EQ(send(client.request(name + right_chap + wrong_pap)).code(), kReject);
}

TEST_F(Verification, RequestWithoutAPasswordIsRejected) {
  EXPECT_EQ(send(client.request(attribute(1, "alice"))).code(), kReject);
  EXPECT_EQ(send(client.request(attribute(1, "alice") + attribute(60, "12345"))).code(), kReject);
  EXPECT_TRUE(token_untouched());
}

// Deliberate: the client is rejected while the attempt counts as a success, since the code was right.
TEST_F(Verification, RightCodeThatCannotBeStoredIsRejectedAndRecordedAsSuccess) {
  odbc_answer("update keyinfo", {{}, SQL_ERROR, 0});
  const Answer answer = login(code(5));
  EXPECT_EQ(answer.code(), kReject);
  EXPECT_EQ(answer.reply.size(), 20U);
  EXPECT_TRUE(executed_once(sql::audit("auth succeed")));
  EXPECT_TRUE(executed_once(sql::reset_failures()));
}

// ---- challenges: the PIN stage

namespace {

class Challenge : public AuthTest {
 protected:
  Challenge() {
    account.token.tktype = "3";
    account.token.lcounter = "0";
    account.user.authtype = "2";
  }

  void pend(std::uint32_t number, int seconds = 10) {
    account.token.hcounter = "1";
    account.token.lcounter = std::to_string(number);
    account.token.predate = date(kNow - seconds);
  }

  // The number drawn at `now`, from the two draws that follow a seed.
  static std::uint32_t number_at(std::time_t now) {
    std::srand(static_cast<unsigned int>(now));
    const auto r1 = static_cast<std::uint32_t>(std::rand());
    const auto r2 = static_cast<std::uint32_t>(std::rand());
    return (r1 % 9999 + 1) * 1000 + r2 % 9999 + 1;
  }
};

}  // namespace

TEST_F(Challenge, RightPinGetsOneWithItsNumberStoredAndShown) {
  const Answer answer = login("9876");
  ASSERT_EQ(answer.code(), kChallenge);
  const std::uint32_t number = number_at(kNow);
  const std::string message = "Challenge " + std::to_string(number) + " , it will timeout in ten minutes.";
  EXPECT_EQ(answer.reply.size(), 22 + message.size());
  EXPECT_EQ(answer.reply[1], client.identifier);
  EXPECT_EQ(Packet(answer.reply.begin() + 20, answer.reply.end()), attribute(18, message));
  EXPECT_EQ(Packet(answer.reply.begin() + 4, answer.reply.begin() + 20), client.response_authenticator(answer.reply));
  EXPECT_TRUE(executed_once(sql::update_token(1, number)));
}

TEST_F(Challenge, TwoWithinASecondAreEqualAndTheNextIsNot) {
  EXPECT_EQ(login("9876").reply, login("9876").reply);
  EXPECT_EQ(std::ranges::count(executed(), sql::update_token(1, number_at(kNow))), 2);
  set_clock(kNow + 1);
  EXPECT_EQ(login("9876").code(), kChallenge);
  EXPECT_TRUE(executed_once(sql::update_token(1, number_at(kNow + 1), kNow + 1)));
  EXPECT_NE(number_at(kNow), number_at(kNow + 1));
}

TEST_F(Challenge, PasswordOfAnotherPaddedLengthGetsOne) {
  EXPECT_EQ(login("").code(), kChallenge);
  EXPECT_EQ(login(std::string(17, '1')).code(), kChallenge);
  EXPECT_EQ(login(std::string(33, '1')).code(), kChallenge);
  account.user.pin = std::string(17, '9');
  EXPECT_EQ(login(code(0) + "9876").code(), kChallenge);
}

TEST_F(Challenge, PasswordThatIsNoWholeBlockGetsOne) {
  EXPECT_EQ(send(client.request(attribute(1, "alice") + attribute(2, "15 bytes of it."))).code(), kChallenge);
}

TEST_F(Challenge, WrongPasswordOfThePaddedLengthIsRejectedAndCounts) {
  for (const std::string& password : {std::string("9875"), std::string("98760"), code(0), std::string(16, '9')}) {
    EXPECT_EQ(login(password).code(), kReject) << password;
  }
  EXPECT_TRUE(token_untouched());
  EXPECT_EQ(std::ranges::count(executed(), sql::count_failure(1, 0)), 4);
}

TEST_F(Challenge, ChapOverThePinGetsOneAndAnyOtherIsRejected) {
  EXPECT_EQ(send(client.chap("alice", "9876")).code(), kChallenge);
  EXPECT_EQ(send(client.chap("alice", "9876", "12345")).code(), kChallenge);
  EXPECT_EQ(send(client.chap("alice", "9875")).code(), kReject);
  EXPECT_EQ(send(client.chap("alice", std::string(17, '1'))).code(), kReject);
}

TEST_F(Challenge, RequestWithoutAPasswordGetsOne) {
  EXPECT_EQ(send(client.request(attribute(1, "alice"))).code(), kChallenge);
}

TEST_F(Challenge, WithoutAPinTheEmptyPasswordAndAnyWholeBlockGetOne) {
  account.user.authtype = "1";
  EXPECT_EQ(login("").code(), kChallenge);
  EXPECT_EQ(login("123456").code(), kChallenge);
  EXPECT_EQ(send(client.chap("alice", "")).code(), kChallenge);
  EXPECT_EQ(send(client.chap("alice", "9876")).code(), kReject);
}

TEST_F(Challenge, WithoutAnAttributeOfTheUserNothingIsLoggedOrCounted) {
  start_log();
  EXPECT_EQ(login("9876").code(), kChallenge);
  EXPECT_EQ(log_text(), "");
  EXPECT_EQ(executed().size(), 3U);
  EXPECT_EQ(login("9876").code(), kChallenge);
  EXPECT_EQ(executed().size(), 6U);  // two selects and the token's update, without a log too
}

TEST_F(Challenge, ThatCannotBeStoredIsNotSent) {
  odbc_answer("update keyinfo", {{}, SQL_ERROR, 0});
  EXPECT_EQ(login("9876").result, RESOLVE_NO_REPLY);
  EXPECT_EQ(executed().size(), 3U);
}

TEST_F(Challenge, DateIsALiteralOfTheDialect) {
  ng_dbtype = 4;
  EXPECT_EQ(login("9876").code(), kChallenge);
  EXPECT_EQ(executed().back(), "update keyinfo set hcounter=1, lcounter=" + std::to_string(number_at(kNow)) +
                                   ", predate=to_date('2023-11-14 22:13:20','yyyy-mm-dd hh24:mi:ss') where "
                                   "serialnum='SN1'");
}

// ---- challenges: the answer

TEST_F(Challenge, RightAnswerIsAcceptedAndClearsIt) {
  pend(1234567);
  EXPECT_EQ(login(code(1234567) + "9876").code(), kAccept);
  EXPECT_TRUE(executed_once(sql::update_token(0, 0)));
}

TEST_F(Challenge, RightAnswerByChapIsAcceptedAndClearsIt) {
  pend(1234567);
  EXPECT_EQ(send(client.chap("alice", code(1234567) + "9876", "12345")).code(), kAccept);
  EXPECT_TRUE(executed_once(sql::update_token(0, 0)));
}

TEST_F(Challenge, AnswerWithoutAPinWhenTheAccountHasNone) {
  account.user.authtype = "1";
  pend(1001);
  EXPECT_EQ(login(code(1001)).code(), kAccept);
}

TEST_F(Challenge, WrongAnswerIsRejectedClearsItAndCounts) {
  pend(1234567);
  for (const std::string& password :
       {code(1234568) + "9876", code(1234567), std::string("9876"), code((1ULL << 32U) + 1234567) + "9876"}) {
    EXPECT_EQ(login(password).code(), kReject) << password;
  }
  EXPECT_EQ(std::ranges::count(executed(), sql::update_token(0, 0)), 4);
  EXPECT_EQ(std::ranges::count(executed(), sql::count_failure(1, 0)), 4);
}

TEST_F(Challenge, WindowsTakeNoPart) {
  pend(1234567);
  account.token.authwnd = "0";
  ng_wnd = 0;
  EXPECT_EQ(login(code(1234567) + "9876").code(), kAccept);
  account.token.authwnd = "30";
  ng_wnd = 30;
  EXPECT_EQ(login(code(1234568) + "9876").code(), kReject);
}

TEST_F(Challenge, IsPendingFor599SecondsAndReplacedAfter600) {
  pend(1234567, 599);
  EXPECT_EQ(login(code(1234567) + "9876").code(), kAccept);
  pend(1234567, 600);
  EXPECT_EQ(login(code(1234567) + "9876").code(), kReject);  // a wrong PIN now
  EXPECT_EQ(login("9876").code(), kChallenge);
  EXPECT_EQ(executed().back(), sql::update_token(1, number_at(kNow)));
}

TEST_F(Challenge, IsPendingWhenIssuedInTheFutureOrAtATimeThatCannotBeComputed) {
  pend(1234567, -100);
  EXPECT_EQ(login(code(1234567) + "9876").code(), kAccept);
  account.token.predate = "1969-12-31 23:59:59";
  EXPECT_EQ(login(code(1234567) + "9876").code(), kAccept);
}

TEST_F(Challenge, IsPendingOnlyWithAHighCounterOfOne) {
  pend(1234567);
  for (const char* high : {"0", "2"}) {
    account.token.hcounter = high;
    EXPECT_EQ(login("9876").code(), kChallenge) << high;
  }
}

TEST_F(Challenge, RightAnswerThatCannotBeClearedIsRejectedAndRecordedAsSuccess) {
  pend(1234567);
  odbc_answer("update keyinfo", {{}, SQL_ERROR, 0});
  const Answer answer = login(code(1234567) + "9876");
  EXPECT_EQ(answer.code(), kReject);
  EXPECT_EQ(answer.reply.size(), 20U);
  EXPECT_TRUE(executed_once(sql::audit("auth succeed")));
  EXPECT_TRUE(executed_once(sql::reset_failures()));
}

TEST_F(Challenge, WrongAnswerThatCannotBeClearedIsRejectedAndCounts) {
  pend(1234567);
  odbc_answer("update keyinfo", {{}, SQL_ERROR, 0});
  EXPECT_EQ(login("0000009876").code(), kReject);
  EXPECT_TRUE(executed_once(sql::audit("auth failed.")));
  EXPECT_TRUE(executed_once(sql::count_failure(1, 0)));
}

TEST_F(Challenge, StaysWhenThereIsNothingToCompare) {
  pend(1234567);
  EXPECT_EQ(send(client.request(attribute(1, "alice"))).code(), kReject);
  account.token.diglen = "5";
  EXPECT_EQ(login("123459876").code(), kReject);
  EXPECT_TRUE(token_untouched());
}

TEST_F(Challenge, WholeDialogueEndsWithTheTokenIdle) {
  account.keep_updated();
  const auto pin = client.pap("alice", "9876");
  EXPECT_EQ(resolve(pin).code(), kChallenge);
  EXPECT_EQ(*account.token.hcounter, "1");
  const std::uint32_t number = number_at(kNow);
  EXPECT_EQ(*account.token.lcounter, std::to_string(number));
  set_clock(kNow + 599);
  const auto answer = client.pap("alice", code(number) + "9876");
  EXPECT_EQ(resolve(answer).code(), kAccept);
  EXPECT_EQ(*account.token.hcounter, "0");
  EXPECT_EQ(*account.token.lcounter, "0");
  EXPECT_EQ(*account.token.predate, date(kNow + 599));
  EXPECT_EQ(resolve(answer).code(), kReject);  // the PIN stage again
  EXPECT_EQ(resolve(pin).code(), kChallenge);
}
