#include "zelvanctl/token_command.h"

#include <fmt/core.h>

#include <algorithm>
#include <map>
#include <vector>

#include "base/clock.h"
#include "zelvanctl/enrolment.h"
#include "zelvanctl/fields.h"
#include "zelvanctl/guard.h"
#include "zelvanctl/otpauth.h"
#include "zelvanctl/resync.h"
#include "zelvanctl/row_check.h"
#include "zelvanctl/token_file_command.h"
#include "zelvanctl/utc_time.h"
#include "zelvanctl/views.h"

namespace zelvan::ctl {
namespace {

// ---- which token: the one of a user, or one by its serial number

struct Target {
  std::string user;
  std::string serial;
};

void declare_target(CLI::App& verb, Target& target) {
  verb.add_option("user", target.user, "The user whose token it is")->type_name("USER");
  verb.add_option("--serial", target.serial, "The token by its serial number, in place of a user")->type_name("SERIAL");
}

struct OwnedToken {
  Token token;
  std::optional<User> owner;
};

OwnedToken find(Context& context, const Target& target) {
  if (target.user.empty() == target.serial.empty()) throw Failure(kUsage, "name a user, or a token with --serial");
  if (target.serial.empty()) {
    User user = context.user(target.user);
    Token token = context.token_of(user);
    return {std::move(token), std::move(user)};
  }
  Token token = context.token(target.serial);
  return {std::move(token), context.records().find_owner(target.serial)};
}

// ---- new

struct NewOptions {
  std::string user;
  EnrolmentOptions enrolment;
};

// Stores a token and, when it is for a user, its serial number there.
void store_new_token(Context& context, const Token& token, const std::optional<User>& user) {
  try {
    Transaction transaction(context.database());
    if (user) context.hold(*user);
    context.records().add_token(token);
    if (user) context.records().set_user(user->name, "serialnum", token.serial);
    transaction.commit();
  } catch (const DatabaseError& error) {
    if (!error.duplicate()) throw;
    throw Failure(kRefused, fmt::format("token {} exists already", token.serial));
  }
}

void make_new(Context& context, NewOptions& options) {
  TokenPlan plan = checked_plan(options.enrolment);
  std::optional<User> user;
  if (!options.user.empty()) {
    user = context.user(options.user);
    if (user->serial && context.records().find_token(*user->serial)) {
      throw Failure(kRefused,
                    fmt::format("user {} has token {}; see zelvanctl token replace", options.user, *user->serial));
    }
    if (plan.serial.empty() && user->serial && serial_problem(*user->serial).empty()) plan.serial = *user->serial;
  }
  const Token token = make_token(plan, now_seconds());
  check_showing(options.enrolment, token, options.user);
  store_new_token(context, token, user);
  const std::string whose =
      options.user.empty() ? "nobody has it yet; see zelvanctl user add --token" : "of user " + printable(options.user);
  show_enrolment(context, options.enrolment, token, options.user,
                 {{"user", options.user.empty() ? Json(nullptr) : Json(options.user)}},
                 fmt::format("New token {} ({}), {}.\n", printable(token.serial), token_words(token), whose));
}

void declare_new(CLI::App& verb, NewOptions& options) {
  verb.add_option("user", options.user, "A user whose token is missing; by default nobody")->type_name("USER");
  declare_plan(verb, options.enrolment);
}

// ---- list, show, qr, remove

struct ListOptions {
  bool spare = false;
};

void list(Context& context, ListOptions& options) {
  std::map<std::string, std::string> owners;
  for (const User& user : context.records().users()) owners.emplace(user.serial.value_or(""), user.name);
  Json list = Json::array();
  Table table({{"TOKEN"}, {"KIND"}, {"COUNTER", Table::Align::right}, {"COUNTED FROM"}, {"USER"}});
  for (const Token& token : context.records().tokens()) {
    const auto owner = owners.find(token.serial);
    if (options.spare && owner != owners.end()) continue;
    Json json = token_json(token, context.show_secrets);
    json["user"] = owner == owners.end() ? Json(nullptr) : Json(owner->second);
    list.push_back(std::move(json));
    table.add({token.serial, token_words(token), std::to_string(token.counter()), token.date.value_or(""),
               owner == owners.end() ? "" : owner->second});
  }
  context.out.result(list, table, "No such tokens.");
}

void show(Context& context, Target& target) {
  const OwnedToken found = find(context, target);
  Json json = token_json(found.token, context.show_secrets);
  json["user"] = found.owner ? Json(found.owner->name) : Json(nullptr);
  json["app_problem"] = app_problem(found.token);
  Sheet sheet;
  sheet.add("User", found.owner ? found.owner->name : "nobody");
  add_token_lines(sheet, found.token, now_seconds(), context.show_secrets);
  const std::string problem = app_problem(found.token);
  sheet.add("Apps", problem.empty() ? "can take it: zelvanctl token qr" : "cannot take it: " + problem);
  context.out.result(json, sheet.text());
}

struct QrOptions {
  Target target;
  EnrolmentOptions enrolment;
};

void show_qr(Context& context, QrOptions& options) {
  const OwnedToken found = find(context, options.target);
  if (const std::string problem = app_problem(found.token); !problem.empty()) {
    throw Failure(kRefused, fmt::format("no QR code for token {}: {}", printable(found.token.serial), problem));
  }
  if (context.out.json() && !context.show_secrets) {
    throw Failure(kRefused, "the URI holds the key; with --json it is written with --show-secrets only");
  }
  options.enrolment.qr = true;
  const std::string account = found.owner ? found.owner->name : "";
  show_enrolment(context, options.enrolment, found.token, account,
                 {{"user", found.owner ? Json(account) : Json(nullptr)}},
                 fmt::format("Token {} ({}){}\n", printable(found.token.serial), token_words(found.token),
                             account.empty() ? "" : " of user " + printable(account)));
}

void declare_qr(CLI::App& verb, QrOptions& options) {
  declare_target(verb, options.target);
  verb.add_option("--issuer", options.enrolment.issuer, "Name under which the app lists the account (default Zelvan)");
}

struct RemoveOptions {
  std::string serial;
};

void remove(Context& context, RemoveOptions& options) {
  const Token token = context.token(options.serial);
  if (const auto owner = context.records().find_owner(token.serial)) {
    throw Failure(kRefused,
                  fmt::format("token {} belongs to user {}", printable(token.serial), printable(owner->name)));
  }
  context.confirm(fmt::format("Remove token {}?", token.serial));
  Transaction transaction(context.database());
  context.hold_spare(token.serial);
  context.records().remove_token(token.serial);
  transaction.commit();
  context.out.result({{"serial", token.serial}, {"done", "remove"}},
                     fmt::format("Token {} is removed.\n", printable(token.serial)));
}

// ---- replace

struct ReplaceOptions {
  std::string user;
  bool keep_old = false;
  EnrolmentOptions enrolment;
};

void replace(Context& context, ReplaceOptions& options) {
  const User user = context.user(options.user);
  const auto old_token = user.serial ? context.records().find_token(*user.serial) : std::nullopt;
  const TokenPlan plan = checked_plan(options.enrolment, old_token ? &*old_token : nullptr);
  const bool remove_old = old_token && !options.keep_old;
  context.confirm(
      fmt::format("The codes of token {} will be refused from now on. Replace it?", user.serial.value_or("(none)")));
  const Token token = make_token(plan, now_seconds());
  check_showing(options.enrolment, token, user.name);
  try {
    Records& records = context.records();
    Transaction transaction(context.database());
    context.hold(user);
    records.add_token(token);
    records.set_user(user.name, "serialnum", token.serial);
    if (remove_old && !records.find_owner(old_token->serial)) records.remove_token(old_token->serial);
    transaction.commit();
  } catch (const DatabaseError& error) {
    if (!error.duplicate()) throw;
    throw Failure(kRefused, fmt::format("token {} exists already", token.serial));
  }
  const std::string hint = options.enrolment.qr ? "" : hand_out_hint(token, user.name);
  show_enrolment(context, options.enrolment, token, user.name,
                 {{"user", user.name}, {"replaced", user.serial.value_or("")}},
                 fmt::format("User {} has token {} ({}).\n{}", printable(user.name), printable(token.serial),
                             token_words(token), hint));
}

void declare_replace(CLI::App& verb, ReplaceOptions& options) {
  verb.add_option("user", options.user, "The user who gets a new token")->required()->type_name("USER");
  verb.add_flag("--keep-old", options.keep_old, "Keep the old token, for another user");
  declare_plan(verb, options.enrolment);
}

// ---- resync

struct ResyncOptions {
  Target target;
  std::vector<std::string> codes;
  std::uint64_t window = 0;  // 0: the default of the kind of token
  bool backward = false;
  bool just_read = false;
};

constexpr std::uint64_t kEventWindow = 1000;
constexpr std::uint64_t kTimeWindow = 2880;  // a day of 30-second steps, before and after
constexpr std::uint64_t kWidestWindow = 10'000'000;

void check_codes(const std::vector<std::string>& codes, const Token& token) {
  const auto digits = static_cast<std::size_t>(value_of(token.digits));
  for (const std::string& code : codes) {
    if (code.size() == digits && std::ranges::all_of(code, [](char c) { return c >= '0' && c <= '9'; })) continue;
    throw Failure(kUsage, fmt::format("a code of this token has {} digits and stands without the PIN", digits));
  }
}

// Where to look, the likeliest place first.
std::vector<SearchRange> search_ranges(const Token& token, const ResyncOptions& options, std::time_t now) {
  const std::uint64_t stored = token.counter();
  std::vector<SearchRange> ranges;
  if (value_of(token.type) == kEventToken) {
    const std::uint64_t window = options.window == 0 ? kEventWindow : options.window;
    ranges.push_back(range_around(stored, window, window));
  } else {
    const std::uint64_t window = options.window == 0 ? kTimeWindow : options.window;
    const std::int64_t step = value_of(token.step);
    const auto date = token.date ? parse_time(*token.date) : std::nullopt;
    ranges.push_back(range_around(expected_factor(stored, date.value_or(now), step, now), window, window));
    // Where an authenticator app is, whatever the row says.
    ranges.push_back(range_around(static_cast<std::uint64_t>(now / step), window, window));
  }
  if (options.backward) return ranges;
  // Going back would make codes good again that were used already.
  for (SearchRange& range : ranges) range.first = std::max(range.first, stored);
  std::erase_if(ranges, [](const SearchRange& range) { return range.first > range.last; });
  return ranges;
}

std::uint64_t search(const Token& token, const ResyncOptions& options, std::time_t now) {
  for (const SearchRange& range : search_ranges(token, options, now)) {
    const auto factor =
        find_pair(*token.key, static_cast<int>(value_of(token.digits)), range, options.codes[0], options.codes[1]);
    if (factor) return *factor;
  }
  throw Failure(kFailed,
                fmt::format("these are no two codes in a row of token {} within the window; check their order, "
                            "or search further with --window{}",
                            printable(token.serial), options.backward ? "" : " or --backward"));
}

// The time to store with the factor after `last`: the server counts the steps from it on.
std::time_t date_after(Context& context, const Token& token, std::uint64_t last, bool just_read, std::time_t now) {
  if (value_of(token.type) == kEventToken || just_read) return now;
  const std::int64_t step = value_of(token.step);
  const auto date = token.date ? parse_time(*token.date) : std::nullopt;
  const StepReading expected =
      nearer_reading(reading_of_clock(step, now), reading_of_row(token.counter(), date.value_or(now), step, now), last);
  const std::int64_t window =
      std::max<std::int64_t>(std::min<std::int64_t>(value_of(token.window), context.rules().window_cap), 1);
  if (const auto fitting = resync_date(last, expected, window, step)) return *fitting;
  const auto behind = static_cast<std::time_t>(expected.factor - last) * step;
  throw Failure(kRefused, fmt::format("these codes are {} behind: read two new ones. If they were read just now, the "
                                      "token's own clock is slow: say so with --just-read. Nothing changed",
                                      duration_words(behind)));
}

bool move(Context& context, const Token& token, std::uint64_t counter, std::time_t date) {
  try {
    return context.records().move_token(token, counter, date);
  } catch (const DatabaseError& error) {
    if (!refused_by_guard(error)) throw;
    throw Failure(kRefused, fmt::format("the guard for several servers refuses to set token {} back; give the user "
                                        "another one: zelvanctl token replace",
                                        printable(token.serial)));
  }
}

void resync(Context& context, ResyncOptions& options) {
  // With --serial the first word is a code, not a user.
  if (!options.target.serial.empty() && !options.target.user.empty()) {
    options.codes.insert(options.codes.begin(), options.target.user);
    options.target.user.clear();
  }
  if (options.codes.size() != 2) throw Failure(kUsage, "give two codes in a row of the token");
  const OwnedToken found = find(context, options.target);
  const Token& token = found.token;
  if (value_of(token.type) == kChallengeToken) {
    throw Failure(kRefused, "a challenge-response token has no counter that could be off");
  }
  for (const Problem& problem : token_problems(token)) {
    if (problem.fatal) throw Failure(kRefused, fmt::format("token {}: {}", printable(token.serial), problem.text));
  }
  check_codes(options.codes, token);
  const std::time_t now = now_seconds();
  const std::uint64_t before = token.counter();
  const std::uint64_t last = search(token, options, now) + 1;
  const std::uint64_t after = last + 1;
  if (!move(context, token, after, date_after(context, token, last, options.just_read, now))) {
    throw Failure(kRefused, "the token was used at this very moment; nothing changed, try again");
  }
  context.out.result(
      {{"serial", token.serial}, {"before", before}, {"counter", after}},
      fmt::format("Token {} was at {} and is at {}; the next code is good.\n", printable(token.serial), before, after));
}

void declare_resync(CLI::App& verb, ResyncOptions& options) {
  declare_target(verb, options.target);
  verb.add_option("codes", options.codes, "Two codes in a row, without the PIN")
      ->type_name("CODE CODE")
      ->expected(0, 2);
  decimal(verb.add_option("--window", options.window,
                          "How many codes to search (default 1000; for time-stepped tokens 2880 before and after)"),
          1, kWidestWindow);
  verb.add_flag("--backward", options.backward,
                "Search also before the stored counter; codes that were used already may become good again");
  verb.add_flag("--just-read", options.just_read,
                "The codes are not old: the clock of a time-stepped token is slow by more than the window");
}

void register_showing_verbs(CLI::App& noun, Context& context) {
  add_verb<ListOptions>(
      noun, context, {"list", "List tokens", "  zelvanctl token list\n  zelvanctl token list --spare\n"},
      [](CLI::App& verb, ListOptions& options) {
        verb.add_flag("--spare", options.spare, "Only tokens that nobody has");
      },
      list);
  add_verb<Target>(noun, context,
                   {"show", "Show a token, without its key",
                    "  zelvanctl token show alice\n"
                    "  zelvanctl token show --serial T0042 --show-secrets\n"},
                   declare_target, show);
  add_verb<QrOptions>(noun, context,
                      {"qr", "Draw the QR code for an authenticator app; it holds the key",
                       "  zelvanctl token qr alice\n"
                       "  zelvanctl token qr alice --issuer 'Example VPN'\n"
                       "  zelvanctl token qr alice --json --show-secrets | jq -r .uri\n"},
                      declare_qr, show_qr);
}

}  // namespace

void register_token_command(CLI::App& program, Context& context) {
  CLI::App& noun = add_noun(program, {"token", "Make, show, resynchronise and replace tokens",
                                      "  zelvanctl token qr alice\n"
                                      "  zelvanctl token resync alice 123456 654321\n"
                                      "  zelvanctl token replace alice --qr\n"});
  add_verb<NewOptions>(noun, context,
                       {"new", "Make a token with a random key, for nobody yet or for a user whose token is missing",
                        "  zelvanctl token new --type event --serial T0042\n"
                        "  zelvanctl token new --digits 8 --json --show-secrets\n"},
                       declare_new, make_new);
  register_showing_verbs(noun, context);
  add_verb<ResyncOptions>(noun, context,
                          {"resync", "Find a token that is out of step by two of its codes in a row",
                           "  zelvanctl token resync alice 123456 654321\n"
                           "  zelvanctl token resync --serial T0042 123456 654321 --window 100000\n"},
                          declare_resync, resync);
  add_verb<ReplaceOptions>(noun, context,
                           {"replace", "Give a user a new token of the same kind and drop the old one",
                            "  zelvanctl token replace alice --qr\n"
                            "  zelvanctl token replace alice --type time --keep-old --yes\n"},
                           declare_replace, replace);
  add_verb<RemoveOptions>(
      noun, context, {"remove", "Remove a token that nobody has", "  zelvanctl token remove T0042\n"},
      [](CLI::App& verb, RemoveOptions& options) {
        verb.add_option("serial", options.serial, "Its serial number")->required()->type_name("SERIAL");
      },
      remove);
  register_token_files(noun, context);
}

}  // namespace zelvan::ctl
