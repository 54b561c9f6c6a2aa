#include "zelvanctl/user_command.h"

#include <fmt/core.h>

#include <algorithm>
#include <map>
#include <optional>

#include "base/clock.h"
#include "zelvanctl/enrolment.h"
#include "zelvanctl/fields.h"
#include "zelvanctl/terminal.h"
#include "zelvanctl/utc_time.h"
#include "zelvanctl/views.h"

namespace zelvan::ctl {
namespace {

// ---- what several verbs share

struct UserOptions {
  std::string name;
};

void declare_user(CLI::App& verb, std::string& name) {
  verb.add_option("user", name, "Login name, at most 19 bytes")->required()->type_name("USER");
}

void done(const Context& context, const std::string& name, const std::string& what, const std::string& text) {
  context.out.result({{"user", name}, {"done", what}}, text + "\n");
}

// A PIN: asked for, or given on the command line on purpose.
struct PinOptions {
  bool ask = false;
  std::optional<std::string> value;
};

void declare_pin(CLI::App& verb, PinOptions& pin) {
  CLI::Option* ask = verb.add_flag("--pin", pin.ask, "Ask for a PIN, without echo, or read it from standard input");
  verb.add_option("--pin-value", pin.value, "The PIN itself; other users of this machine can see the command line")
      ->excludes(ask);
}

std::optional<Secret> read_pin(const PinOptions& options, const std::string& user) {
  std::optional<Secret> pin;
  if (options.value) pin = Secret(*options.value);
  if (options.ask) pin = read_secret("PIN for " + printable(user));
  if (pin) require("the PIN", pin_problem(pin->reveal()));
  return pin;
}

// A token that nobody has.
Token spare_token(Context& context, const std::string& serial) {
  Token token = context.token(serial);
  if (const auto owner = context.records().find_owner(serial)) {
    throw Failure(kRefused, fmt::format("token {} belongs to user {}", printable(serial), printable(owner->name)));
  }
  return token;
}

// ---- add

struct AddOptions {
  std::string name;
  std::string mail;
  std::string token;
  PinOptions pin;
  EnrolmentOptions enrolment;
};

User new_user(const AddOptions& options, const std::string& serial, const std::optional<Secret>& pin) {
  User user;
  user.name = options.name;
  user.serial = serial;
  user.locked = Number{0};
  user.failures = Number{0};
  if (!options.mail.empty()) user.mail = options.mail;
  user.auth_type = Number{pin ? kCodeAndPin : kCodeOnly};
  user.pin = pin;
  user.deleted = Number{0};
  return user;
}

void store_new_user(Context& context, const User& user, const Token* new_token) {
  try {
    Transaction transaction(context.database());
    if (new_token != nullptr) {
      context.records().add_token(*new_token);
    } else {
      context.hold_spare(user.serial.value_or(""));
    }
    context.records().add_user(user);
    transaction.commit();
  } catch (const DatabaseError& error) {
    if (!error.duplicate()) throw;
    throw Failure(kRefused, fmt::format("the user or the serial number exists already: {}", error.what()));
  }
}

void add(Context& context, AddOptions& options) {
  require("the user name", user_name_problem(options.name));
  require("--mail", mail_problem(options.mail));
  const TokenPlan plan = checked_plan(options.enrolment);
  if (context.records().find_user(options.name)) {
    throw Failure(kRefused, fmt::format("user {} exists already", options.name));
  }
  const bool spare = !options.token.empty();
  if (spare && describes_new_token(options.enrolment)) {
    throw Failure(kUsage, "--token takes a token as it is; leave out the options of a new one");
  }
  const Token token = spare ? spare_token(context, options.token) : make_token(plan, now_seconds());
  check_showing(options.enrolment, token, options.name);
  const auto pin = read_pin(options.pin, options.name);
  const User user = new_user(options, token.serial, pin);
  store_new_user(context, user, spare ? nullptr : &token);
  const std::string text = fmt::format("User {} has token {} ({}).\n{}", user.name, token.serial, token_words(token),
                                       pin ? "The password is the code followed by the PIN.\n" : "");
  const std::string hint = options.enrolment.qr || context.show_secrets || spare ? "" : hand_out_hint(token, user.name);
  show_enrolment(context, options.enrolment, token, user.name, user_json(user, now_seconds(), context.show_secrets),
                 text + hint);
}

void declare_add(CLI::App& verb, AddOptions& options) {
  declare_user(verb, options.name);
  verb.add_option("--mail", options.mail, "Address that is warned when the account is locked");
  declare_pin(verb, options.pin);
  verb.add_option("--token", options.token, "Take this token, which nobody has, instead of a new one")
      ->type_name("SERIAL");
  declare_plan(verb, options.enrolment);
}

// ---- list

struct ListOptions {
  bool locked = false;
  bool disabled = false;
  bool active = false;
  std::string match;
  std::string type;
  std::string unused_since;
  int failures = 0;
  std::string sort = "name";
  bool reverse = false;
};

struct ListedUser {
  User user;
  const Token* token;  // null: there is none
};

class ListFilter {
 public:
  ListFilter(const ListOptions& options, std::time_t now) : options_(options), now_(now) {
    if (options.unused_since.empty()) return;
    unused_since_ = parse_moment(options.unused_since, now);
    if (!unused_since_) throw Failure(kUsage, fmt::format("--unused-since {} is no time", options.unused_since));
  }

  [[nodiscard]] bool wants(const ListedUser& listed) const {
    const std::string state = state_word(listed.user, now_);
    const bool any_state = !options_.locked && !options_.disabled && !options_.active;
    const bool state_wanted = any_state || (options_.locked && state == "locked") ||
                              (options_.disabled && state == "disabled") ||
                              (options_.active && (state == "active" || state == "lock expired"));
    return state_wanted && text_wanted(listed.user) && token_wanted(listed.token) && use_wanted(listed.user) &&
           value_of(listed.user.failures) >= options_.failures;
  }

 private:
  [[nodiscard]] bool text_wanted(const User& user) const {
    return user.name.find(options_.match) != std::string::npos ||
           user.mail.value_or("").find(options_.match) != std::string::npos ||
           user.serial.value_or("").find(options_.match) != std::string::npos;
  }
  [[nodiscard]] bool token_wanted(const Token* token) const {
    if (options_.type.empty()) return true;
    return token != nullptr && token_type_word(value_of(token->type)) == options_.type;
  }
  [[nodiscard]] bool use_wanted(const User& user) const {
    if (!unused_since_) return true;
    const auto last = user.last_use ? parse_time(*user.last_use) : std::nullopt;
    return !last || *last < *unused_since_;
  }

  const ListOptions& options_;
  std::time_t now_;
  std::optional<std::time_t> unused_since_;
};

// Most failures and latest use come first.
void sort_users(std::vector<ListedUser>& users, const ListOptions& options) {
  const auto less = [&](const ListedUser& left, const ListedUser& right) {
    if (options.sort == "last") return left.user.last_use.value_or("") > right.user.last_use.value_or("");
    if (options.sort == "failures") return value_of(left.user.failures) > value_of(right.user.failures);
    if (options.sort == "serial") return left.user.serial.value_or("") < right.user.serial.value_or("");
    return left.user.name < right.user.name;
  };
  std::ranges::stable_sort(users, less);
  if (options.reverse) std::ranges::reverse(users);
}

void show_list(Context& context, const std::vector<ListedUser>& users, std::time_t now) {
  Json list = Json::array();
  Table table(
      {{"USER"}, {"STATE"}, {"FAILURES", Table::Align::right}, {"LAST USE"}, {"TOKEN"}, {"KIND"}, {"PIN"}, {"MAIL"}});
  for (const ListedUser& listed : users) {
    const User& user = listed.user;
    Json json = user_json(user, now, context.show_secrets);
    json["type"] = listed.token != nullptr ? Json(token_type_word(value_of(listed.token->type))) : Json(nullptr);
    list.push_back(std::move(json));
    table.add({user.name, state_word(user, now), std::to_string(value_of(user.failures)),
               user.last_use.value_or("never"), user.serial.value_or(""),
               listed.token != nullptr ? token_type_word(value_of(listed.token->type)) : "missing",
               user.needs_pin() ? "yes" : "no", user.mail.value_or("")});
  }
  context.out.result(list, table, "No such users.");
}

void list(Context& context, ListOptions& options) {
  const std::time_t now = now_seconds();
  const ListFilter filter(options, now);
  const std::vector<Token> tokens = context.records().tokens();
  std::map<std::string, const Token*> by_serial;
  for (const Token& token : tokens) by_serial.emplace(token.serial, &token);
  std::vector<ListedUser> users;
  for (User& user : context.records().users()) {
    const auto token = by_serial.find(user.serial.value_or(""));
    ListedUser listed{std::move(user), token == by_serial.end() ? nullptr : token->second};
    if (filter.wants(listed)) users.push_back(std::move(listed));
  }
  sort_users(users, options);
  show_list(context, users, now);
}

void declare_list(CLI::App& verb, ListOptions& options) {
  verb.add_flag("--locked", options.locked, "Locked users");
  verb.add_flag("--disabled", options.disabled, "Disabled users");
  verb.add_flag("--active", options.active, "Users that are neither locked nor disabled");
  verb.add_option("--match", options.match, "Users with this text in name, mail address or serial number");
  verb.add_option("--type", options.type, "Users with this kind of token")
      ->check(CLI::IsMember({"time", "event", "challenge"}));
  verb.add_option("--unused-since", options.unused_since, "Users without an attempt since then: 30d, 2026-01-31")
      ->type_name("TIME");
  decimal(verb.add_option("--failures", options.failures, "Users with at least so many failures in a row"), 0, 99);
  verb.add_option("--sort", options.sort, "name (default), last (latest use first), failures (most first), serial")
      ->check(CLI::IsMember({"name", "last", "failures", "serial"}));
  verb.add_flag("--reverse", options.reverse, "Turn the order round");
}

// ---- show

std::string attempt_words(const Output& out, const NextAttempt& next) {
  if (!next.refused()) return out.coloured("accepted", Colour::green) + " with the right code";
  return out.coloured("refused", Colour::red);
}

std::string user_sheet(const Context& context, const User& user, const Token* token, const NextAttempt& next,
                       std::time_t now) {
  Sheet sheet;
  sheet.add("User", user.name);
  sheet.add("State", state_word(user, now));
  sheet.add("Mail", user.mail.value_or("none"));
  sheet.add("Password", user.needs_pin() ? "the code followed by the PIN" : "the code");
  if (context.show_secrets && user.pin) sheet.add("PIN", user.pin->reveal());
  sheet.add("Failures", fmt::format("{} in a row", value_of(user.failures)));
  sheet.add("Last attempt", time_words(user.last_use, now));
  if (token != nullptr) add_token_lines(sheet, *token, now, context.show_secrets);
  std::string text = sheet.text() + fmt::format("{:<14}{}\n", "Next attempt", attempt_words(context.out, next));
  for (const std::string& reason : next.refusals) text += "  because " + printable(reason) + "\n";
  for (const std::string& remark : next.remarks) text += "  note: " + printable(remark) + "\n";
  return text;
}

void show(Context& context, UserOptions& options) {
  const std::time_t now = now_seconds();
  const User user = context.user(options.name);
  const auto token = user.serial ? context.records().find_token(*user.serial) : std::nullopt;
  const Token* row = token ? &*token : nullptr;
  const NextAttempt next = next_attempt(user, row, context.rules(), now);
  Json json = user_json(user, now, context.show_secrets);
  json["token"] = token ? token_json(*token, context.show_secrets) : Json(nullptr);
  json["next_attempt"] = attempt_json(next);
  context.out.result(json, user_sheet(context, user, row, next, now));
}

// ---- set

struct SetOptions {
  std::string name;
  std::optional<std::string> mail;
  PinOptions pin;
  bool no_pin = false;
  std::string token;
};

void store_pin(Records& records, const std::string& name, const Secret& pin) {
  // In this order, so that at no moment a PIN is demanded and none is there.
  records.set_user(name, "pin", pin);
  records.set_user(name, "authtype", kCodeAndPin);
}

void drop_pin(Records& records, const std::string& name) {
  records.set_user(name, "authtype", kCodeOnly);
  records.set_user(name, "pin", nullptr);
}

void set(Context& context, SetOptions& options) {
  const bool pin_wanted = options.pin.ask || options.pin.value;
  if (!options.mail && !pin_wanted && !options.no_pin && options.token.empty()) {
    throw Failure(kUsage, "nothing to set; see zelvanctl user set --help");
  }
  if (pin_wanted && options.no_pin) throw Failure(kUsage, "--no-pin excludes --pin and --pin-value");
  require("--mail", mail_problem(options.mail.value_or("")));
  const User user = context.user(options.name);
  if (!options.token.empty()) (void)spare_token(context, options.token);
  const auto pin = read_pin(options.pin, options.name);

  Records& records = context.records();
  Transaction transaction(context.database());
  context.hold(user);
  if (!options.token.empty()) context.hold_spare(options.token);
  if (options.mail) {
    records.set_user(options.name, "user_email", options.mail->empty() ? Parameter(nullptr) : Parameter(*options.mail));
  }
  if (pin) store_pin(records, options.name, *pin);
  if (options.no_pin) drop_pin(records, options.name);
  if (!options.token.empty()) records.set_user(options.name, "serialnum", options.token);
  transaction.commit();
  done(context, options.name, "set", fmt::format("User {} changed.", options.name));
}

void declare_set(CLI::App& verb, SetOptions& options) {
  declare_user(verb, options.name);
  verb.add_option("--mail", options.mail, "Address that is warned when the account is locked; empty: none");
  declare_pin(verb, options.pin);
  verb.add_flag("--no-pin", options.no_pin, "The code alone is enough");
  verb.add_option("--token", options.token, "Take this token, which nobody has; the old one is kept")
      ->type_name("SERIAL");
}

// ---- lock, unlock, disable, enable, remove

// Changes a user who is there until the change is made.
template <typename Change>
void change(Context& context, const std::string& name, Change change_row) {
  const User user = context.user(name);
  Transaction transaction(context.database());
  context.hold(user);
  change_row(context.records());
  transaction.commit();
}

void lock(Context& context, UserOptions& options) {
  change(context, options.name, [&](Records& records) { records.lock_user(options.name, now_seconds()); });
  done(context, options.name, "lock",
       fmt::format("User {} is locked until ten minutes have passed without an attempt.\n"
                   "To shut the account until you open it again: zelvanctl user disable {}",
                   options.name, options.name));
}

void unlock(Context& context, UserOptions& options) {
  change(context, options.name, [&](Records& records) { records.unlock_user(options.name); });
  done(context, options.name, "unlock",
       fmt::format("User {} is not locked; the failures are forgotten.", options.name));
}

void disable(Context& context, UserOptions& options) {
  change(context, options.name, [&](Records& records) { records.set_user(options.name, "isdeleted", 1); });
  done(context, options.name, "disable",
       fmt::format("User {} is disabled.\n"
                   "The synchronisation service (UDP port 8801) still knows the token: zelvanctl token replace {}",
                   options.name, options.name));
}

void enable(Context& context, UserOptions& options) {
  change(context, options.name, [&](Records& records) { records.set_user(options.name, "isdeleted", 0); });
  done(context, options.name, "enable", fmt::format("User {} is enabled.", options.name));
}

struct RemoveOptions {
  std::string name;
  bool keep_token = false;
};

void remove(Context& context, RemoveOptions& options) {
  const User user = context.user(options.name);
  const bool with_token = user.serial && !options.keep_token;
  context.confirm(with_token ? fmt::format("Remove user {} and token {}?", user.name, *user.serial)
                             : fmt::format("Remove user {}?", user.name));
  Records& records = context.records();
  Transaction transaction(context.database());
  context.hold(user);
  records.remove_user(user.name);
  if (with_token && !records.find_owner(*user.serial)) records.remove_token(*user.serial);
  transaction.commit();
  done(context, options.name, "remove", fmt::format("User {} is removed.", options.name));
}

void register_simple_verbs(CLI::App& noun, Context& context) {
  const auto setup = [](CLI::App& verb, UserOptions& options) { declare_user(verb, options.name); };
  add_verb<UserOptions>(noun, context,
                        {"show", "Tell the state of a user and whether the next attempt would be refused, and why",
                         "  zelvanctl user show alice\n"
                         "  zelvanctl user show alice --json | jq .next_attempt\n"},
                        setup, show);
  add_verb<UserOptions>(noun, context,
                        {"lock", "Lock a user as if too many codes had been wrong", "  zelvanctl user lock alice\n"},
                        setup, lock);
  add_verb<UserOptions>(noun, context,
                        {"unlock", "Lift a lock and forget the failures", "  zelvanctl user unlock alice\n"}, setup,
                        unlock);
  add_verb<UserOptions>(noun, context,
                        {"disable", "Refuse a user at RADIUS until it is enabled", "  zelvanctl user disable alice\n"},
                        setup, disable);
  add_verb<UserOptions>(
      noun, context, {"enable", "Let a disabled user log in again", "  zelvanctl user enable alice\n"}, setup, enable);
}

void declare_remove(CLI::App& verb, RemoveOptions& options) {
  declare_user(verb, options.name);
  verb.add_flag("--keep-token", options.keep_token, "Keep the token for another user");
}

}  // namespace

void register_user_command(CLI::App& program, Context& context) {
  CLI::App& noun = add_noun(program, {"user", "Add, list, change and remove users",
                                      "  zelvanctl user add alice --mail alice@example.com --qr\n"
                                      "  zelvanctl user list --locked\n"
                                      "  zelvanctl user remove alice --yes\n"});
  add_verb<AddOptions>(noun, context,
                       {"add", "Add a user together with a token",
                        "  zelvanctl user add alice --mail alice@example.com --qr\n"
                        "  zelvanctl user add bob --type event --pin\n"
                        "  pwgen -1 8 | zelvanctl user add carol --pin --json --show-secrets\n"
                        "  zelvanctl user add dave --token T0042\n"},
                       declare_add, add);
  add_verb<ListOptions>(noun, context,
                        {"list", "List users",
                         "  zelvanctl user list --locked --sort last\n"
                         "  zelvanctl user list --unused-since 90d\n"
                         "  zelvanctl user list --match example.com --json\n"},
                        declare_list, list);
  add_verb<SetOptions>(noun, context,
                       {"set", "Change mail address, PIN or token of a user",
                        "  zelvanctl user set alice --mail alice@example.org\n"
                        "  zelvanctl user set alice --pin\n"
                        "  zelvanctl user set alice --no-pin\n"
                        "  zelvanctl user set alice --token T0043\n"},
                       declare_set, set);
  add_verb<RemoveOptions>(noun, context,
                          {"remove", "Remove a user and the token",
                           "  zelvanctl user remove alice\n"
                           "  zelvanctl user remove alice --keep-token --yes\n"},
                          declare_remove, remove);
  register_simple_verbs(noun, context);
}

}  // namespace zelvan::ctl
