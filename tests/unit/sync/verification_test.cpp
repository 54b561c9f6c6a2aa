#include "sync/verification.h"

#include <strings.h>

#include "otp/challenge.h"
#include "sync/token_state.h"
#include "unit/sync/sync_fixture.h"

namespace zelvan::test {
namespace {

class VerificationTest : public SyncFixture {
 protected:
  // Loads the scripted account and verifies `password`.
  sync_result verify_password(const std::string& password) {
    script();
    account = {};
    CQENTDatabase database(&otp_database);
    const sync_result loaded = load_account(database, "alice", account);
    return loaded == SYNC_ACCEPTED ? verify(database, account, password.c_str()) : loaded;
  }

  void fail_update() { odbc_return(OdbcCall::exec_direct, SQL_ERROR, 3); }

  static std::string stored(unsigned long high, unsigned long low) {
    return "update keyinfo set hcounter=" + std::to_string(high) + ", lcounter=" + std::to_string(low) + ", predate='" +
           kNowText + "' where serialnum='SN-1'";
  }

  SyncAccount account;
};

// ---- event tokens

TEST_F(VerificationTest, WrongCodeChangesNothing) {
  EXPECT_EQ(verify_password("000000"), SYNC_NO_MATCH);
  EXPECT_TRUE(updates().empty());
}

TEST_F(VerificationTest, FirstCodeOfTheWindowMatches) {
  EXPECT_EQ(verify_password(kCodes[0]), SYNC_ACCEPTED);
  EXPECT_EQ(updates(), std::vector{stored(0, 1)});
}

TEST_F(VerificationTest, ThirdCodeOfTheWindowAdvancesTheCounterByThree) {
  token.low = "2";
  EXPECT_EQ(verify_password(kCodes[4]), SYNC_ACCEPTED);
  EXPECT_EQ(updates(), std::vector{stored(0, 5)});
  EXPECT_EQ(account.token.high_counter, 0U);
  EXPECT_EQ(account.token.low_counter, 5U);
}

TEST_F(VerificationTest, LastCodeOfTheWindowMatches) {
  EXPECT_EQ(verify_password(kCodes[4]), SYNC_ACCEPTED);
  EXPECT_EQ(updates(), std::vector{stored(0, 5)});
}

TEST_F(VerificationTest, CodeBehindTheWindowDoesNotMatch) {
  EXPECT_EQ(verify_password(kCodes[5]), SYNC_NO_MATCH);
  EXPECT_TRUE(updates().empty());
}

TEST_F(VerificationTest, CodeBeforeTheCounterDoesNotMatch) {
  token.low = "1";
  EXPECT_EQ(verify_password(kCodes[0]), SYNC_NO_MATCH);
}

TEST_F(VerificationTest, WindowOfZeroMatchesNothing) {
  token.window = "0";
  EXPECT_EQ(verify_password(kCodes[0]), SYNC_NO_MATCH);
  token.type = "2";
  EXPECT_EQ(verify_password(kCodes[0]), SYNC_NO_MATCH);
}

TEST_F(VerificationTest, SearchCarriesIntoTheHighHalf) {
  token.high = "0";
  token.low = "4294967295";
  token.window = "1";
  ASSERT_EQ(verify_password("000000"), SYNC_NO_MATCH);
  EXPECT_EQ(account.token.high_counter, 1U);
  EXPECT_EQ(account.token.low_counter, 0U);
}

TEST_F(VerificationTest, LargestCounterWrapsIntoTheFirstCode) {
  token.high = "4294967295";
  token.low = "4294967295";
  EXPECT_EQ(verify_password(kCodes[0]), SYNC_ACCEPTED);
  EXPECT_EQ(updates(), std::vector{stored(0, 1)});
}

TEST_F(VerificationTest, FailedUpdateOfARightCodeIsNotStored) {
  fail_update();
  EXPECT_EQ(verify_password(kCodes[0]), SYNC_NOT_STORED);
  EXPECT_EQ(updates().size(), 1U);
}

TEST_F(VerificationTest, PinIsExpectedBehindTheCode) {
  user.auth_type = "2";
  user.pin = "aBc";
  EXPECT_EQ(verify_password(kCodes[0]), SYNC_NO_MATCH);
  EXPECT_EQ(verify_password(std::string("aBc") + kCodes[0]), SYNC_NO_MATCH);
  EXPECT_EQ(verify_password(std::string(kCodes[0]) + "aBc"), SYNC_ACCEPTED);
}

TEST_F(VerificationTest, CaseOfThePinDoesNotMatter) {
  user.auth_type = "2";
  user.pin = "aBc";
  EXPECT_EQ(verify_password(std::string(kCodes[0]) + "AbC"), SYNC_ACCEPTED);
}

TEST_F(VerificationTest, PinIsNoPartOfTheCodeUnderOtherAuthenticationTypes) {
  user.pin = "aBc";
  for (const char* type : {"0", "1", "3", "9"}) {
    user.auth_type = type;
    EXPECT_EQ(verify_password(std::string(kCodes[0]) + "aBc"), SYNC_NO_MATCH) << type;
    EXPECT_EQ(verify_password(kCodes[0]), SYNC_ACCEPTED) << type;
  }
}

TEST_F(VerificationTest, LongestCodeWithTheLongestPinNeverOverruns) {
  user.auth_type = "2";
  user.pin = std::string(23, 'p');
  token.digits = "9";
  EXPECT_EQ(verify_password(std::string(30, '1')), SYNC_NO_MATCH);
}

TEST_F(VerificationTest, LongestPinThatFitsThePasswordMatches) {
  user.auth_type = "2";
  user.pin = std::string(23, 'p');
  EXPECT_EQ(verify_password(std::string(kCodes[0]) + std::string(23, 'P')), SYNC_ACCEPTED);
}

TEST_F(VerificationTest, EightDigitsMatch) {
  token.digits = "8";
  EXPECT_EQ(verify_password("84755224"), SYNC_ACCEPTED);  // RFC 4226 appendix D: 1284755224
}

TEST_F(VerificationTest, CodeThatCannotBeGeneratedNeverMatches) {
  for (const char* digits : {"0", "1", "5", "x", "", "10"}) {
    token.digits = digits;
    EXPECT_EQ(verify_password(""), SYNC_NO_MATCH) << digits;
    EXPECT_EQ(verify_password("5"), SYNC_NO_MATCH) << digits;
  }
}

TEST_F(VerificationTest, CodeThatCannotBeGeneratedDoesNotLeaveThePinAlone) {
  user.auth_type = "2";
  user.pin = "1234";
  token.digits = "5";
  EXPECT_EQ(verify_password("1234"), SYNC_NO_MATCH);
}

TEST_F(VerificationTest, EveryOtherTypeCountsEvents) {
  for (const char* type : {"0", "1", "4", "9", "x"}) {
    token.type = type;
    token.date = "2000-01-01 00:00:00";
    EXPECT_EQ(verify_password(kCodes[1]), SYNC_ACCEPTED) << type;
  }
}

TEST_F(VerificationTest, DateIsWrittenInTheDialectOfTheDatabase) {
  ng_dbtype = 4;
  EXPECT_EQ(verify_password(kCodes[0]), SYNC_ACCEPTED);
  EXPECT_EQ(updates(), std::vector<std::string>{"update keyinfo set hcounter=0, lcounter=1, "
                                                "predate=to_date('2023-11-14 22:13:20','yyyy-mm-dd hh24:mi:ss') "
                                                "where serialnum='SN-1'"});
}

TEST_F(VerificationTest, WindowOf255IsSearchedWhole) {
  token.window = "-1";
  EXPECT_EQ(verify_password("none"), SYNC_NO_MATCH);
  EXPECT_EQ(account.token.low_counter, 255U);
}

// ---- time-stepped tokens

class TimeSteppedTest : public VerificationTest {
 protected:
  TimeSteppedTest() { token.type = "2"; }

  // The token was stored that many seconds ago.
  void elapse(std::time_t seconds) { set_clock(kNow + seconds); }

  // Where the window begins.
  unsigned long window_start() {
    EXPECT_EQ(verify_password("none"), SYNC_NO_MATCH);
    return account.token.low_counter - account.window;
  }
};

TEST_F(TimeSteppedTest, CounterMovesByTheElapsedStepsLessHalfTheWindow) {
  elapse(6 * 60);
  EXPECT_EQ(window_start(), 4U);
}

TEST_F(TimeSteppedTest, CounterStaysWithinHalfTheWindow) {
  elapse(2 * 60 + 59);
  EXPECT_EQ(window_start(), 0U);
}

TEST_F(TimeSteppedTest, CounterMovesByOneBeyondHalfTheWindow) {
  elapse(3 * 60);
  EXPECT_EQ(window_start(), 1U);
}

TEST_F(TimeSteppedTest, DateInTheFutureMovesNothing) {
  elapse(-100000);
  EXPECT_EQ(window_start(), 0U);
}

TEST_F(TimeSteppedTest, CodeOfTheCurrentStepMatchesAndMovesBehindItself) {
  elapse(6 * 60);
  EXPECT_EQ(verify_password(kCodes[6]), SYNC_ACCEPTED);
  EXPECT_EQ(updates(), std::vector<std::string>{"update keyinfo set hcounter=0, lcounter=7, "
                                                "predate='2023-11-14 22:19:20' where serialnum='SN-1'"});
}

TEST_F(TimeSteppedTest, ThousandsOfYearsAreOneAddition) {
  token.date = "0100-01-01 00:00:00";
  token.time_step = "1";
  token.window = "0";
  EXPECT_EQ(verify_password("none"), SYNC_NO_MATCH);
  const auto elapsed = static_cast<std::uint64_t>(getcurtime() - stored_time("0100-01-01 00:00:00"));
  EXPECT_GT(elapsed, 60'000'000'000U);
  EXPECT_EQ(account.token.high_counter << 32U | account.token.low_counter, elapsed);
}

TEST_F(TimeSteppedTest, WindowOfOneLeavesNothingBack) {
  token.window = "1";
  elapse(60);
  EXPECT_EQ(verify_password(kCodes[0]), SYNC_NO_MATCH);
  EXPECT_EQ(verify_password(kCodes[1]), SYNC_ACCEPTED);
}

// ---- challenge tokens

class ChallengeTest : public VerificationTest {
 protected:
  ChallengeTest() {
    token.type = "3";
    user.pin = "PiN";
  }

  void pending(std::uint32_t challenge, const char* date = kNowText) {
    token.high = "1";
    token.low = std::to_string(challenge);
    token.date = date;
  }

  static std::string cleared(const char* date = kNowText) {
    return std::string("update keyinfo set hcounter=0, lcounter=0, predate='") + date + "' where serialnum='SN-1'";
  }
};

TEST_F(ChallengeTest, WrongPinChangesNothing) {
  EXPECT_EQ(verify_password("other"), SYNC_NO_MATCH);
  EXPECT_EQ(verify_password(""), SYNC_NO_MATCH);
  EXPECT_TRUE(updates().empty());
}

TEST_F(ChallengeTest, PinIssuesAChallenge) {
  EXPECT_EQ(verify_password("PiN"), SYNC_CHALLENGED);
  const std::uint32_t challenge = sync_challenge(draw_pair(kNow));
  EXPECT_EQ(account.token.low_counter, challenge);
  EXPECT_EQ(account.token.high_counter, 1U);
  EXPECT_EQ(updates(), std::vector<std::string>{"update keyinfo set hcounter=1, lcounter=" + std::to_string(challenge) +
                                                ", predate='" + kNowText + "' where serialnum='SN-1'"});
}

TEST_F(ChallengeTest, CaseOfThePinDoesNotMatter) { EXPECT_EQ(verify_password("pIn"), SYNC_CHALLENGED); }

TEST_F(ChallengeTest, EmptyPinIsMatchedByAnEmptyPassword) {
  user.pin = "";
  EXPECT_EQ(verify_password(""), SYNC_CHALLENGED);
}

TEST_F(ChallengeTest, PinIsAskedForUnderEveryAuthenticationType) {
  for (const char* type : {"1", "2"}) {
    user.auth_type = type;
    EXPECT_EQ(verify_password("PiN"), SYNC_CHALLENGED) << type;
  }
}

TEST_F(ChallengeTest, TwoChallengesOfOneSecondAreEqual) {
  ASSERT_EQ(verify_password("PiN"), SYNC_CHALLENGED);
  const unsigned long first = account.token.low_counter;
  ASSERT_EQ(verify_password("PiN"), SYNC_CHALLENGED);
  EXPECT_EQ(account.token.low_counter, first);
}

TEST_F(ChallengeTest, ChallengeThatCannotBeStoredIsNotStored) {
  fail_update();
  EXPECT_EQ(verify_password("PiN"), SYNC_NOT_STORED);
}

TEST_F(ChallengeTest, RightAnswerIsAcceptedWithTheChallengeAndClearsTheRow) {
  pending(7);
  EXPECT_EQ(verify_password(kCodes[7]), SYNC_ACCEPTED);
  EXPECT_EQ(account.token.high_counter, 0U);
  EXPECT_EQ(account.token.low_counter, 7U);
  EXPECT_EQ(updates(), std::vector{cleared()});
}

TEST_F(ChallengeTest, WrongAnswerClearsTheRowToo) {
  pending(7);
  EXPECT_EQ(verify_password(kCodes[8]), SYNC_WRONG_ANSWER);
  EXPECT_EQ(updates(), std::vector{cleared()});
}

TEST_F(ChallengeTest, PinIsAWrongAnswerWhileAChallengeIsPending) {
  pending(7);
  EXPECT_EQ(verify_password("PiN"), SYNC_WRONG_ANSWER);
  EXPECT_EQ(updates(), std::vector{cleared()});
}

TEST_F(ChallengeTest, AnswerHasThePinBehindItUnderType2) {
  user.auth_type = "2";
  pending(7);
  EXPECT_EQ(verify_password(kCodes[7]), SYNC_WRONG_ANSWER);
  EXPECT_EQ(verify_password(std::string(kCodes[7]) + "pIn"), SYNC_ACCEPTED);
}

TEST_F(ChallengeTest, UpdateThatFailsHidesTheOutcome) {
  pending(7);
  fail_update();
  EXPECT_EQ(verify_password(kCodes[7]), SYNC_NOT_STORED);
  odbc_return(OdbcCall::exec_direct, SQL_ERROR, 3);
  EXPECT_EQ(verify_password("wrong"), SYNC_NOT_STORED);
}

TEST_F(ChallengeTest, AnyHighCounterButZeroIsPending) {
  pending(7);
  token.high = "4294967295";
  EXPECT_EQ(verify_password(kCodes[7]), SYNC_ACCEPTED);
}

TEST_F(ChallengeTest, AnswerAfter659SecondsIsTaken) {
  pending(7);
  set_clock(kNow + 659);
  EXPECT_EQ(verify_password(kCodes[7]), SYNC_ACCEPTED);
  EXPECT_EQ(updates(), std::vector{cleared("2023-11-14 22:24:19")});
}

TEST_F(ChallengeTest, AnswerAfter660SecondsIsTakenForAPinAndRefused) {
  pending(7);
  set_clock(kNow + 660);
  EXPECT_EQ(verify_password(kCodes[7]), SYNC_NO_MATCH);
  EXPECT_TRUE(updates().empty());
}

TEST_F(ChallengeTest, PinAfter660SecondsIssuesANewChallenge) {
  pending(7);
  set_clock(kNow + 660);
  EXPECT_EQ(verify_password("PiN"), SYNC_CHALLENGED);
}

TEST_F(ChallengeTest, ChallengeOfTheFutureIsPending) {
  pending(7, "2099-01-01 00:00:00");
  EXPECT_EQ(verify_password(kCodes[7]), SYNC_ACCEPTED);
}

TEST_F(ChallengeTest, AnswerThatCannotBeGeneratedIsWrongAndClearsTheRow) {
  pending(7);
  token.digits = "5";
  EXPECT_EQ(verify_password(""), SYNC_WRONG_ANSWER);
  EXPECT_EQ(updates(), std::vector{cleared()});
}

TEST_F(ChallengeTest, OnlyOneCodeIsTried) {
  pending(7);
  token.window = "30";
  EXPECT_EQ(verify_password(kCodes[6]), SYNC_WRONG_ANSWER);
}

TEST_F(ChallengeTest, WindowOfZeroStillTakesTheAnswer) {
  pending(7);
  token.window = "0";
  EXPECT_EQ(verify_password(kCodes[7]), SYNC_ACCEPTED);
}

}  // namespace
}  // namespace zelvan::test
