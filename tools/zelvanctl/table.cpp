#include "zelvanctl/table.h"

#include <algorithm>

namespace zelvan::ctl {
namespace {

unsigned byte_at(std::string_view text, std::size_t index) { return static_cast<unsigned char>(text[index]); }

// How many bytes a sequence has that begins with `first`; 0 when none does.  RFC 3629 section 3.
std::size_t announced_length(unsigned first) {
  if (first < 0x80) return 1;
  if (first < 0xC2) return 0;
  if (first < 0xE0) return 2;
  if (first < 0xF0) return 3;
  return first < 0xF5 ? 4 : 0;
}

// Overlong forms, surrogates and what lies beyond U+10FFFF show in the first two bytes.
bool second_byte_fits(unsigned first, unsigned second) {
  switch (first) {
    case 0xE0:
      return second >= 0xA0;
    case 0xED:
      return second < 0xA0;
    case 0xF0:
      return second >= 0x90;
    case 0xF4:
      return second < 0x90;
    default:
      return true;
  }
}

// The length of the UTF-8 sequence at the beginning of `text`, 0 when there is no valid one.
std::size_t sequence_length(std::string_view text) {
  const std::size_t length = announced_length(byte_at(text, 0));
  if (length == 0 || length > text.size()) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte_at(text, i) & 0xC0U) != 0x80) return 0;
  }
  return length == 1 || second_byte_fits(byte_at(text, 0), byte_at(text, 1)) ? length : 0;
}

bool is_control(std::string_view sequence) {
  const auto first = static_cast<unsigned char>(sequence[0]);
  if (sequence.size() == 1) return first < 0x20 || first == 0x7F;
  // U+0080 to U+009F are control characters of their own.
  return first == 0xC2 && static_cast<unsigned char>(sequence[1]) < 0xA0;
}

std::string padded(const std::string& cell, std::size_t width, Table::Align align) {
  const std::string blanks(width - std::min(width, display_width(cell)), ' ');
  return align == Table::Align::right ? blanks + cell : cell + blanks;
}

}  // namespace

std::size_t display_width(std::string_view text) {
  return static_cast<std::size_t>(
      std::ranges::count_if(text, [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80; }));
}

std::string printable(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const std::size_t length = sequence_length(text);
    const std::string_view sequence = text.substr(0, std::max<std::size_t>(length, 1));
    if (length == 0 || is_control(sequence)) {
      out += '?';
    } else {
      out += sequence;
    }
    text.remove_prefix(sequence.size());
  }
  return out;
}

void Table::add(std::vector<std::string> cells) {
  cells.resize(columns_.size());
  for (std::string& cell : cells) cell = printable(cell);
  rows_.push_back(std::move(cells));
}

std::vector<std::size_t> Table::widths() const {
  std::vector<std::size_t> widths;
  for (const Column& column : columns_) widths.push_back(display_width(column.title));
  for (const auto& row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], display_width(row[i]));
  }
  return widths;
}

std::string Table::text(bool bold_titles) const {
  const std::vector<std::size_t> widths = this->widths();
  const auto line = [&](auto cell) {
    std::string text;
    for (std::size_t i = 0; i < columns_.size(); ++i) {
      if (i > 0) text += "  ";
      text += padded(cell(i), widths[i], columns_[i].align);
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
  };
  const std::string titles = line([&](std::size_t i) { return columns_[i].title; });
  std::string out = bold_titles ? "\x1b[1m" + titles + "\x1b[0m\n" : titles + "\n";
  for (const auto& row : rows_) out += line([&](std::size_t i) { return row[i]; }) + "\n";
  return out;
}

}  // namespace zelvan::ctl
