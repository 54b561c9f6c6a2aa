// What an attempt leaves behind: the reply, a log line or audit row, the failure count, a lock, a warning mail.
#include <algorithm>
#include <array>

#include "auth/AnalyseAuthData.h"
#include "auth/work_item.h"
#include "base/text.h"
#include "config/settings.h"
#include "db/OTPDatabase.h"
#include "db/QENTDatabase.h"
#include "db/current_date.h"
#include "db/time_text.h"
#include "log/OTPLog.h"
#include "mail/notifier.h"

using zelvan::Statement;

namespace {

// Failures add up only while each attempt follows the one before within this time.
constexpr int kFailureSeconds = 599;

// Values of ng_logcond; any other records nothing.
enum LogCondition : int { LOG_ALL = 1, LOG_FAILURES = 2, LOG_SUCCESSES = 3 };

bool outcome_wanted(bool success) {
  return ng_logcond == LOG_ALL || ng_logcond == (success ? LOG_SUCCESSES : LOG_FAILURES);
}

using LogText = std::array<char, 128>;  // the longest message has 43 characters, a name and an address

}  // namespace

int CAnalyseAuthData::Resolve(void* workItem) {
  if (workItem == nullptr) return RESOLVE_NO_REPLY;
  const int result = answer(zelvan::WorkItemView(static_cast<unsigned char*>(workItem)));
  account_lock_.unlock();
  return result;
}

int CAnalyseAuthData::answer(const zelvan::WorkItemView& item) {
  std::ranges::copy(item.address(), client_address);

  std::array<unsigned char, zelvan::kReplyCapacity> reply{};
  int reply_length = 0;
  const int verdict = authdatacheck(item.packet(), reply.data(), reply_length);
  if (verdict == AUTHDATA_NO_SECRET || verdict == AUTHDATA_NO_REPLY) return RESOLVE_NO_REPLY;

  static_assert(zelvan::kReplyCapacity <= zelvan::kSmallestDataArea, "every reply fits over every request");
  std::copy_n(reply.begin(), reply_length, item.packet());
  if (verdict == AUTHDATA_CHALLENGE || user_found == 0) return RESOLVE_SEND_REPLY;

  // Deliberate: an attempt that cannot be recorded is not answered either.
  if (!record_attempt()) return RESOLVE_NO_REPLY;

  const zelvan::CurrentDate now = zelvan::current_date();
  CQENTDatabase database(&otp_database);
  if (matched != 0) {
    record_success(database, now);
  } else {
    record_failure(database, now);
  }
  return RESOLVE_SEND_REPLY;
}

// Writes the log line, or the audit row when there is no log.  False when the row's date could not be formed.
bool CAnalyseAuthData::record_attempt() {
  const bool success = matched != 0;
  if (g_plog != nullptr) {
    LogText text{};
    const bool formatted = success
                               ? zelvan::format_text(text, "%s auth succeeded.", user_name)
                               : zelvan::format_text(text, "%s auth failed.Request from:%s", user_name, client_text);
    // A line that cannot be written is lost; the attempt counts all the same.
    if (formatted && outcome_wanted(success)) (void)g_plog->writelog(text.data());
    return true;
  }

  const zelvan::CurrentDate now = zelvan::current_date();
  if (!now.literal_formed) return false;
  if (!outcome_wanted(success)) return true;
  CQENTDatabase database(&otp_database);
  // An audit row that cannot be written is lost; the attempt counts all the same.
  (void)execute_statement(database, success ? Statement::audit_success : Statement::audit_failure,
                          {now.literal, user_name, client_text});
  return true;
}

void CAnalyseAuthData::record_success(CQENTDatabase& database, const zelvan::CurrentDate& now) {
  if (execute_statement(database, Statement::reset_failures, {now.literal, user_name}) != 1) {
    report_failed_update(database, now, Statement::audit_update_failed);
  }
}

void CAnalyseAuthData::record_failure(CQENTDatabase& database, const zelvan::CurrentDate& now) {
  const int since_last = otp_diff_time(now.text, zelvan::kStoredDateFormat, last_use_date, zelvan::kStoredDateFormat);
  if (since_last > kFailureSeconds) failure_count = 0;

  bool mail_due = locked != 0;
  int updated = 0;
  if (locked != 0) {
    updated = execute_statement(database, Statement::touch_user, {now.literal, user_name});
  } else {
    ++failure_count;
    if (failure_count >= ng_maxaccum) {
      locked = 1;
      failure_count = 0;
      mail_due = true;
    }
    updated = execute_statement(database, Statement::count_failure, {failure_count, locked, now.literal, user_name});
  }
  if (updated != 1) report_failed_update(database, now, Statement::audit_update_failed_short);

  if (mail_due && ng_mail_need != 0 && user_mail[0] != '\0') sendmail_push(user_mail);
}

// Reports an update of userinfo that failed: to the log when there is one, else as an audit row by `fallback`, which is
// audit_update_failed or its short form without the client's address.
void CAnalyseAuthData::report_failed_update(CQENTDatabase& database, const zelvan::CurrentDate& now,
                                            Statement fallback) {
  // Results are ignored: this is the last place that could tell anybody.
  if (g_plog != nullptr) {
    LogText text{};
    if (zelvan::format_text(text, "Update userinfo failed.Username:%s.", user_name))
      (void)g_plog->writelog(text.data());
  } else if (fallback == Statement::audit_update_failed_short) {
    (void)execute_statement(database, fallback, {now.literal, user_name});
  } else {
    (void)execute_statement(database, fallback, {now.literal, user_name, client_text});
  }
}
