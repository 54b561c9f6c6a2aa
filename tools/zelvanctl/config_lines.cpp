#include "zelvanctl/config_lines.h"

#include <fmt/core.h>

#include <algorithm>
#include <cstring>

#include "config/config_text.h"

namespace zelvan::ctl {

ConfigLines::ConfigLines(std::string_view text) : byte_order_mark_(text.starts_with("\xEF\xBB\xBF")) {
  // Room for every line at once, so that no value is left behind by a move.
  lines_.reserve(static_cast<std::size_t>(std::ranges::count(text, '\n')) + text.size() / kConfigLineLimit + 1);
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::size_t feed = text.find('\n');
    std::string_view line = text.substr(0, feed == std::string_view::npos ? feed : feed + 1);
    text.remove_prefix(line.size());
    for (bool continues = false; !line.empty(); continues = true) {
      const std::string_view piece = line.substr(0, kConfigLineLimit);
      take(piece, number, continues);
      line.remove_prefix(piece.size());
    }
  }
}

ConfigLines::~ConfigLines() {
  for (ConfigLine& line : lines_) explicit_bzero(line.value.data(), line.value.size());
}

void ConfigLines::take(std::string_view piece, std::size_t number, bool continues) {
  ConfigLine line;
  line.number = number;
  line.continues = continues;
  line.carriage_return = piece.ends_with("\r\n");
  line.has_nul = piece.find('\0') != std::string_view::npos;
  piece = piece.substr(0, piece.find('\0'));
  switch (piece.empty() ? ' ' : piece.front()) {
    case '\r':
    case '\n':
      break;
    case ';':
      line.kind = ConfigLine::Kind::comment;
      line.header_comment = header_open_;
      break;
    case '[':
      take_section(piece, line);
      header_open_ = false;
      break;
    default:
      take_item(piece, line);
      header_open_ = false;
  }
  line.section = section_;
  line.in_section = !section_.empty();
  lines_.push_back(std::move(line));
}

void ConfigLines::take_section(std::string_view piece, ConfigLine& line) {
  line.kind = ConfigLine::Kind::section;
  const std::size_t end = piece.find(']');
  line.closed = end != std::string_view::npos;
  line.text_behind = line.closed && piece.find_first_not_of(" \t\r\n", end + 1) != std::string_view::npos;
  section_ = parse_section_name(piece);
}

void ConfigLines::take_item(std::string_view piece, ConfigLine& line) {
  const std::size_t start = std::min(piece.find_first_not_of(' '), piece.size());
  // An item is parsed without its indentation, which would hide its key.
  auto item = parse_item(piece.substr(start));
  if (!item) return;
  line.kind = ConfigLine::Kind::item;
  line.indented = start > 0;
  line.has_equals = piece.find('=') != std::string_view::npos;
  line.key = std::move(item->key);
  line.value = item->value;
  explicit_bzero(item->value.data(), item->value.size());
}

const ConfigLine* ConfigLines::find(std::string_view section, std::string_view key) const {
  const auto found = std::ranges::find_if(lines_, [&](const ConfigLine& line) {
    return line.kind == ConfigLine::Kind::item && line.in_section && !line.indented && line.section == section &&
           line.key == key;
  });
  return found != lines_.end() ? &*found : nullptr;
}

namespace {

// What happens to one line when the file is written back; empty: nothing.
std::string loss(const ConfigLine& line) {
  using Kind = ConfigLine::Kind;
  const bool stray = !line.in_section && !line.header_comment;
  if (line.kind == Kind::comment && stray) return "the comment stands in no section and would be lost";
  if (line.kind == Kind::section && !line.in_section) return "the section without a name would be lost";
  if (line.kind == Kind::section && !line.closed) return "the section would get its missing ]";
  if (line.kind == Kind::section && line.text_behind) return "the text behind the ] would be lost";
  if (line.kind != Kind::item) return "";
  if (stray) return "the setting stands in no section and would be lost";
  if (line.indented) return "the key of the indented setting would be lost";
  return line.has_equals ? "" : "the line would get a = at its end";
}

}  // namespace

std::vector<std::string> edit_losses(const ConfigLines& lines) {
  std::vector<std::string> losses;
  const auto is_blank = [](const ConfigLine& line) { return line.kind == ConfigLine::Kind::blank; };
  const auto blanks = std::ranges::count_if(lines.all(), is_blank);
  if (blanks > 0) losses.push_back(fmt::format("{} blank line{} would be lost", blanks, blanks == 1 ? "" : "s"));
  for (const ConfigLine& line : lines.all()) {
    if (const std::string text = loss(line); !text.empty()) {
      losses.push_back(fmt::format("line {}: {}", line.number, text));
    }
  }
  return losses;
}

std::string edit_obstacle(const ConfigLines& lines) {
  if (lines.byte_order_mark()) return "the file begins with a byte order mark; save it without one";
  for (const ConfigLine& line : lines.all()) {
    if (line.continues) return fmt::format("line {} is longer than {} bytes", line.number, kConfigLineLimit);
    if (line.has_nul) return fmt::format("line {} holds a NUL byte", line.number);
    // Written back as a comment, which brings its own line feed; the next line would be glued to it.
    if (line.kind == ConfigLine::Kind::item && !line.indented && line.key == kCommentKey) {
      return fmt::format("line {} has the key {}, which stands for comments; remove it", line.number, kCommentKey);
    }
  }
  return "";
}

}  // namespace zelvan::ctl
