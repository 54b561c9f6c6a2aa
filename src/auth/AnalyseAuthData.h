// One Access-Request, from the datagram to the signed reply.
//
// The worker makes one analyser for each datagram and calls Resolve.  The steps lie in four files:
//   radius.cpp        shared secret, header and attributes; choosing and signing the reply
//   parameters.cpp    the user's row and the token's row; the account lock; the moving factor to begin with
//   verification.cpp  trying codes; challenges; moving the token past the code that was used
//   outcome.cpp       Resolve; the log line or audit row, the failure count, the lock, the warning mail
//
// Source   RFC 2865 (RADIUS), RFC 4226 (HOTP).
// Threads  An analyser belongs to one worker.  Requests for one user name are handled one after the other: the analyser
//          holds the account lock from reading the user's row to its last statement.
// Memory   No allocation of its own; secrets are wiped on destruction.
#pragma once

#include <cstdint>

#include "auth/radius_packet.h"
#include "db/account_lock.h"
#include "db/statements.h"
#include "otp/Md5.h"

namespace zelvan {
struct CurrentDate;
class WorkItemView;
}  // namespace zelvan

// Result of CAnalyseAuthData::Resolve.
enum resolve_result : int {
  RESOLVE_NO_REPLY = 0,
  RESOLVE_SEND_REPLY = 1,
};

// Result of CAnalyseAuthData::authdatacheck; the positive ones are the reply's Code.
enum authdatacheck_result : int {
  AUTHDATA_NO_SECRET = -1,  // the client has no shared secret: nothing to send
  AUTHDATA_NO_REPLY = 0,    // nothing to send
  AUTHDATA_ACCEPT = 2,
  AUTHDATA_REJECT = 3,
  AUTHDATA_CHALLENGE = 11,
};

// Result of CAnalyseAuthData::requestcheck.
enum requestcheck_result : int {
  REQUEST_NOT_STORED = -1,  // the password was right, or a challenge ended, but the token's row could not be written
  REQUEST_REFUSED = 0,      // wrong password, malformed request, or nobody to check it for
  REQUEST_RIGHT = 1,
  REQUEST_CHALLENGE = 11,  // a challenge must be issued
};

// Result of CAnalyseAuthData::otp_initparams.
enum initparams_result : int {
  INITPARAMS_LOCKED = -3,      // the account is locked and the lock holds
  INITPARAMS_UNREADABLE = -2,  // a row or a column that is needed could not be read, or makes no sense
  INITPARAMS_STATEMENT = -1,   // a statement could not be executed, or the lock could not be lifted
  INITPARAMS_READY = 1,
  INITPARAMS_NO_ROW = 100,  // no active user, or no token
};

// Values of keyinfo.tktype.
enum token_kind : int { TOKEN_EVENT = 1, TOKEN_TIME_STEPPED = 2, TOKEN_CHALLENGE = 3 };

// Value of userinfo.authtype that asks for the PIN behind the code; any other value means the code alone.
inline constexpr int kAuthTypeWithPin = 2;

class CAnalyseAuthData {
 public:
  CAnalyseAuthData() = default;
  virtual ~CAnalyseAuthData();
  CAnalyseAuthData(const CAnalyseAuthData&) = delete;
  CAnalyseAuthData& operator=(const CAnalyseAuthData&) = delete;

  // Handles one request and records its outcome.
  //   workItem  a work item (auth/work_item.h) whose packet's Length field is its true length, 20 to 512 bytes; the
  //             reply, if any, is written over the packet
  // Returns a resolve_result; RESOLVE_NO_REPLY for a null item.
  int Resolve(void* workItem);

  // Checks a request and builds the reply.
  //   request      the packet, as many bytes as its Length field says (at least 20)
  //   reply        kReplyCapacity bytes, zero-filled by the caller
  //   replyLength  out: the reply's length in bytes, only when there is one to send
  // Returns an authdatacheck_result.
  int authdatacheck(unsigned char* request, unsigned char* reply, int& replyLength);

  // Parses the attributes, loads the user and the token and verifies the password.
  //   attributes  `length` bytes; none when length is 0 or less
  // Returns a requestcheck_result.
  int requestcheck(unsigned char* attributes, int length);

  // Loads the user's row and the token's row for `user_name` and prepares the moving factor; lifts an expired lock.
  // Returns an initparams_result.
  int otp_initparams();

  // Finds the shared secret of `client_address`, or the catch-all's.
  // Returns 1 with the client text, the secret and its length filled in, or 0 when there is none.
  int GetShareSecret();

  // Writes the password expected for the current moving factor: the code, and the PIN when the account needs it.
  //   out  40 bytes; the longest text has 10 + 19 characters
  // Returns 1, or 0 when `out` is null or the token has no valid digit count.
  int generateotp(char* out);

  int locked = 0;                        // 1: locked when loaded, or locked by this request
  int failure_count = 0;                 // failed attempts in a row
  unsigned char client_address[4] = {};  // IPv4, network order
  char client_text[16] = {};             // dotted decimal, with NUL
  char user_name[20] = {};               // at most 19 bytes and a NUL
  int user_name_length = 0;              // bytes of the User-Name value
  unsigned char request_authenticator[zelvan::kAuthenticatorSize] = {};
  int packet_length = 0;               // the request's Length field
  std::uint8_t packet_code = 0;        // the request's Code
  std::uint8_t packet_identifier = 0;  // the request's Identifier
  char shared_secret[57] = {};         // at most 56 characters and a NUL
  int shared_secret_length = 0;        // characters
  CMd5 digest_engine;
  int user_found = 0;                                             // 1 once a row of userinfo was fetched
  int matched = 0;                                                // 1 once a code matched
  std::uint32_t high_counter = 0;                                 // keyinfo.hcounter
  std::uint32_t low_counter = 0;                                  // keyinfo.lcounter
  unsigned char moving_factor[8] = {};                            // HOTP counter, most significant byte first
  int token_type = 0;                                             // token_kind
  char token_key[56] = {};                                        // at most 54 characters and a NUL
  char serial_number[30] = {};                                    // at most 28 characters and a NUL
  char token_date[57] = {};                                       // date text, or the literal to be stored
  char last_use_date[57] = {};                                    // date text of the last attempt or unlock
  char user_mail[57] = {};                                        // at most 55 characters and a NUL; empty: no mail
  int auth_type = 1;                                              // kAuthTypeWithPin: the PIN follows the code
  char pin[20] = {};                                              // at most 18 characters and a NUL
  int code_digits = 0;                                            // 6 to 10
  int token_window = 0;                                           // codes to look ahead, capped by ng_wnd
  int time_step = 0;                                              // seconds a step, for time-stepped tokens
  int user_exists = 1;                                            // 0: there is no active row of userinfo
  unsigned char password_field[zelvan::kPasswordFieldSize] = {};  // see reveal_user_password
  int password_seen = 0;                                          // 1: the request had a User-Password

 private:
  // parameters.cpp
  int load_user(CQENTDatabase& database);
  bool read_user_columns(CQENTDatabase& database);
  int lift_expired_lock(CQENTDatabase& database);
  int load_token(CQENTDatabase& database);
  bool read_token_columns(CQENTDatabase& database);
  int advance_for_elapsed_time();

  // verification.cpp
  enum class Search : std::uint8_t { matched, missed, refused };
  int verify_code(const zelvan::RequestAttributes& request);
  int verify_challenge_dialogue(const zelvan::RequestAttributes& request);
  int answer_challenge(const zelvan::RequestAttributes& request);
  int check_pin(const zelvan::RequestAttributes& request);
  Search search_window(const zelvan::RequestAttributes& request, int window);
  bool candidate_matches(const char* candidate, const zelvan::RequestAttributes& request);
  bool store_token();
  bool issue_challenge();

  // radius.cpp
  void keep_attributes(const zelvan::RequestAttributes& request);
  int build_answer(unsigned char* reply, int& replyLength, const zelvan::ReplyPlan& plan);
  [[nodiscard]] std::string_view secret() const;

  // outcome.cpp
  int answer(const zelvan::WorkItemView& item);
  bool record_attempt();
  void record_success(CQENTDatabase& database, const zelvan::CurrentDate& now);
  void record_failure(CQENTDatabase& database, const zelvan::CurrentDate& now);
  void report_failed_update(CQENTDatabase& database, const zelvan::CurrentDate& now, zelvan::Statement fallback);

  zelvan::AccountLock account_lock_;
};
