#include "zelvanctl/token_file_command.h"

#include <fcntl.h>
#include <fmt/core.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <set>

#include "base/clock.h"
#include "zelvanctl/draft.h"
#include "zelvanctl/progress.h"
#include "zelvanctl/token_csv.h"
#include "zelvanctl/views.h"

namespace zelvan::ctl {
namespace {

namespace fs = std::filesystem;

// ---- import

struct ImportOptions {
  std::string file;
  bool dry_run = false;
};

// Wiped, since the file holds keys.
Secret read_file(const std::string& name) {
  std::ifstream file;
  if (name != "-") {
    if (std::filesystem::is_directory(name)) throw Failure(kUsage, name + " is a folder");
    file.open(name, std::ios::binary);
    if (!file) throw Failure(kUsage, fmt::format("cannot open {}: {}", name, std::strerror(errno)));
  }
  std::istream& in = name == "-" ? std::cin : file;
  std::string text(std::istreambuf_iterator<char>(in), {});
  if (in.bad()) throw Failure(kFailed, "cannot read " + name);
  Secret secret(text);
  explicit_bzero(text.data(), text.size());
  return secret;
}

// Adds a bad line for each token and user that the database has already.
void find_conflicts(Records& records, TokenImport& import) {
  std::set<std::string> serials;
  std::set<std::string> users;
  for (const Token& token : records.tokens()) serials.insert(token.serial);
  for (const User& user : records.users()) users.insert(user.name);
  for (const ImportedToken& token : import.tokens) {
    if (serials.contains(token.token.serial)) {
      import.bad_lines.push_back({token.line, fmt::format("token {} exists already", token.token.serial)});
    } else if (token.user && users.contains(token.user->name)) {
      import.bad_lines.push_back({token.line, fmt::format("user {} exists already", token.user->name)});
    }
  }
  std::ranges::stable_sort(import.bad_lines, {}, &BadLine::number);
}

void refuse(Context& context, const TokenImport& import, const std::string& file) {
  Json lines = Json::array();
  std::string text =
      fmt::format("nothing imported; {} bad line{}", import.bad_lines.size(), import.bad_lines.size() == 1 ? "" : "s");
  for (const BadLine& line : import.bad_lines) {
    lines.push_back({{"line", line.number}, {"reason", line.reason}});
    text += fmt::format("\n{}:{}: {}", file, line.number, printable(line.reason));
  }
  if (!context.out.json()) throw Failure(kFailed, text);
  context.out.result({{"imported", 0}, {"bad_lines", lines}}, "");
  context.exit_code = kFailed;
}

void store(Context& context, const TokenImport& import) {
  Progress progress("importing", import.tokens.size());
  Transaction transaction(context.database());
  for (const ImportedToken& token : import.tokens) {
    try {
      context.records().add_token(token.token);
      if (token.user) context.records().add_user(*token.user);
    } catch (const DatabaseError& error) {
      throw Failure(error.duplicate() ? kRefused : kFailed,
                    fmt::format("nothing imported; line {}: {}", token.line, error.what()));
    }
    progress.step();
  }
  transaction.commit();
}

void import_tokens(Context& context, ImportOptions& options) {
  (void)context.database();  // its password, if it is asked for, is the first line of standard input
  const Secret text = read_file(options.file);
  TokenImport import = parse_tokens(text.reveal(), now_seconds());
  find_conflicts(context.records(), import);
  if (!import.bad_lines.empty()) return refuse(context, import, options.file);
  if (!options.dry_run) store(context, import);
  const auto users = std::ranges::count_if(import.tokens, [](const auto& token) { return token.user.has_value(); });
  const std::string_view what = options.dry_run ? "Could import" : "Imported";
  context.out.result({{"imported", options.dry_run ? 0 : import.tokens.size()},
                      {"users", options.dry_run ? 0 : users},
                      {"bad_lines", Json::array()}},
                     fmt::format("{} {} tokens and {} users.\n", what, import.tokens.size(), users));
}

// ---- export

struct ExportOptions {
  std::string file = "-";
  bool spare = false;
};

using Owners = std::map<std::string, User>;

Owners owners_of(Records& records) {
  Owners owners;
  for (User& user : records.users()) {
    if (user.serial) owners.emplace(*user.serial, std::move(user));
  }
  return owners;
}

// The file to write, links followed.  Throws Failure (kFailed) when there can be none.
fs::path export_target(const std::string& name) {
  std::error_code error;
  const fs::file_type type = fs::status(name, error).type();
  // A pipe of the shell (/dev/fd/63) is a link that leads to no name.
  if (type == fs::file_type::fifo || type == fs::file_type::character) return name;
  if (type == fs::file_type::not_found && !fs::is_symlink(fs::symlink_status(name, error))) return name;
  if (type == fs::file_type::regular) return fs::canonical(name);
  throw Failure(kFailed, fmt::format("cannot write {}: it is neither a file nor a pipe", name));
}

// Writes into what keeps nothing: a pipe, a terminal.
void write_stream(const fs::path& target, std::string_view text) {
  const Descriptor file(open(target.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY));
  if (file.get() >= 0 && write_all(file.get(), text)) return;
  throw Failure(kFailed, fmt::format("cannot write {}: {}", target.string(), std::strerror(errno)));
}

// Writes a file that only its owner may read, and puts it in place as a whole.
void write_file(const fs::path& target, std::string_view text) {
  std::error_code error;
  if (fs::exists(target, error) && !fs::is_regular_file(target, error)) return write_stream(target, text);
  try {
    Draft(target, text).replace(false);
  } catch (const Failure& failure) {
    throw Failure(kFailed, failure.what());
  }
}

void export_tokens(Context& context, ExportOptions& options) {
  const bool to_file = options.file != "-";
  const fs::path target = to_file ? export_target(options.file) : fs::path();
  if (fs::is_regular_file(target)) context.confirm(fmt::format("Overwrite {}?", options.file));
  const Owners owners = owners_of(context.records());
  const std::vector<Token> tokens = context.records().tokens();
  Json list = Json::array();
  std::string csv = token_csv_titles(context.show_secrets);
  {
    Progress progress("exporting", tokens.size());
    for (const Token& token : tokens) {
      progress.step();
      const auto owner = owners.find(token.serial);
      if (options.spare && owner != owners.end()) continue;
      csv += token_csv_line(token, owner == owners.end() ? nullptr : &owner->second, context.show_secrets);
      Json json = token_json(token, context.show_secrets);
      json["user"] = owner == owners.end() ? Json(nullptr) : Json(owner->second.name);
      list.push_back(std::move(json));
    }
  }
  const std::size_t count = list.size();
  if (to_file) {
    write_file(target, csv);
    list = {{"exported", count}, {"file", options.file}};
  }
  context.out.result(list, to_file ? fmt::format("Exported {} tokens to {}.\n", count, options.file) : csv);
  explicit_bzero(csv.data(), csv.size());
}

void declare_import(CLI::App& verb, ImportOptions& options) {
  verb.add_option("file", options.file, "CSV file; - for standard input")->required()->type_name("FILE");
  verb.add_flag("--dry-run", options.dry_run, "Check every line and change nothing");
}

void declare_export(CLI::App& verb, ExportOptions& options) {
  verb.add_option("file", options.file, "File to write, readable by you alone; by default standard output")
      ->type_name("FILE");
  verb.add_flag("--spare", options.spare, "Only tokens that nobody has");
}

}  // namespace

void register_token_files(CLI::App& noun, Context& context) {
  add_verb<ImportOptions>(noun, context,
                          {"import", "Take tokens, and users, from a CSV file: all lines or none",
                           "  zelvanctl token import tokens.csv\n"
                           "  zelvanctl token import - --dry-run < tokens.csv\n"
                           "\n"
                           "The first line names the columns: serial, key, type are demanded; digits, window, step,\n"
                           "counter, date, user, mail, pin, state may be there.\n"},
                          declare_import, import_tokens);
  add_verb<ExportOptions>(noun, context,
                          {"export", "Write all tokens as CSV; keys and PINs only with --show-secrets",
                           "  zelvanctl token export\n"
                           "  zelvanctl token export backup.csv --show-secrets\n"},
                          declare_export, export_tokens);
}

}  // namespace zelvan::ctl
