#include "config/config_text.h"

#include <cstring>
#include <utility>

namespace zelvan {

std::string_view parse_section_name(std::string_view line) {
  line.remove_prefix(1);
  const std::size_t end = line.find(']');
  return line.substr(0, end != std::string_view::npos ? end : line.find_first_of("\r\n"));
}

std::optional<ConfigItem> parse_item(std::string_view line) {
  const std::size_t start = line.find_first_not_of(' ');
  if (start == std::string_view::npos || line[start] == '\r' || line[start] == '\n') return std::nullopt;

  ConfigItem item;
  std::size_t key_end = line.find('=', start);
  if (key_end == std::string_view::npos) {
    key_end = line.find_first_of("\r\n");
  } else {
    const std::string_view rest = line.substr(key_end + 1);
    item.value = rest.substr(0, rest.find_first_of("\r\n"));
  }
  // Deliberate: the key of an indented line reads as empty, so the item is kept but no lookup finds it.
  if (start == 0) item.key = line.substr(0, key_end);
  return item;
}

std::string write_config_text(const ConfigText& text) {
  std::string out = text.header_comment;
  for (const ConfigSection& section : text.sections) {
    out.append("[").append(section.name).append("]\n");
    for (const ConfigItem& item : section.items) {
      if (item.key == kCommentKey) {
        out.append(item.value);
      } else {
        out.append(item.key).append("=").append(item.value).append("\n");
      }
    }
  }
  return out;
}

void wipe_values(ConfigText& text) {
  for (ConfigSection& section : text.sections) {
    for (ConfigItem& item : section.items) explicit_bzero(item.value.data(), item.value.size());
  }
}

void ConfigTextBuilder::take_line(std::string_view line) {
  switch (line.empty() ? '\0' : line.front()) {
    case '\r':
    case '\n':
      return;
    case ';':
      take_comment(line);
      return;
    case '[':
      open_section(parse_section_name(line));
      break;
    default:
      if (auto item = parse_item(line)) current_.items.push_back(std::move(*item));
  }
  header_open_ = false;
}

void ConfigTextBuilder::finish() { open_section({}); }

void ConfigTextBuilder::open_section(std::string_view name) {
  // Deliberate: items before the first section and in a section without a name are dropped.
  if (!current_.name.empty()) text_.sections.push_back(std::move(current_));
  current_ = {std::string(name), {}};
}

void ConfigTextBuilder::take_comment(std::string_view line) {
  if (header_open_) {
    text_.header_comment += line;
  } else {
    current_.items.push_back({kCommentKey, std::string(line)});
  }
}

}  // namespace zelvan
