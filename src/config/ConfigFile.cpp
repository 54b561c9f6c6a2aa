#include "config/ConfigFile.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>

#include "base/text.h"

CConfigFile configfile;

namespace {

struct FileCloser {
  void operator()(std::FILE* file) const { (void)std::fclose(file); }  // only read from: nothing is lost
};
using File = std::unique_ptr<std::FILE, FileCloser>;

std::unique_ptr<char[]> copy_path(const char* path) {
  const std::size_t size = std::strlen(path) + 1;
  auto copy = std::make_unique<char[]>(size);
  std::replace_copy(path, path + size, copy.get(), '\\', '/');
  return copy;
}

void read_lines(std::FILE* file, zelvan::ConfigText& text) {
  // A read takes at most 1022 characters; what is left of the line comes with the next one, as a line of its own.
  constexpr int kReadLimit = 1023;
  std::array<char, kReadLimit + 1> line{};
  zelvan::ConfigTextBuilder builder(text);
  while (std::fgets(line.data(), kReadLimit, file) != nullptr) builder.take_line(line.data());
  builder.finish();
  explicit_bzero(line.data(), line.size());
}

}  // namespace

CConfigFile::CConfigFile() = default;

CConfigFile::~CConfigFile() { zelvan::wipe_values(text_); }

int CConfigFile::config_init(const char* path) {
  if (path == nullptr) return CONFIG_INIT_NO_PATH;
  path_ = copy_path(path);
  const File file(std::fopen(path_.get(), "r"));
  if (file == nullptr) return CONFIG_INIT_NO_FILE;
  read_lines(file.get(), text_);
  return CONFIG_INIT_OK;
}

int CConfigFile::getvalstr(const char* section, const char* key, char* out, int limit, const char* fallback) const {
  if (section == nullptr || key == nullptr || out == nullptr || limit < 1) return GETVAL_BAD_ARGUMENT;

  const std::span<char> room(out, static_cast<std::size_t>(limit) + 1);
  if (const std::string* value = find(section, key)) {
    return zelvan::copy_text(room, *value) ? GETVAL_OK : GETVAL_TOO_LONG;
  }
  if (fallback == nullptr) return GETVAL_NOT_FOUND;

  // Deliberate: a default that is too long is no error; the buffer keeps what it held.
  (void)zelvan::copy_text(room, fallback);
  return GETVAL_OK;
}

int CConfigFile::getvalInt(const char* section, const char* key, int fallback) const {
  if (section == nullptr || key == nullptr) return fallback;
  const std::string* value = find(section, key);
  if (value == nullptr) return fallback;
  // What atoi does, but with a defined result for a number beyond the range of an int: its low 32 bits.
  return static_cast<int>(std::strtol(value->c_str(), nullptr, 10));
}

const std::string* CConfigFile::find(const char* section, const char* key) const {
  for (const auto& candidate : text_.sections) {
    if (candidate.name != section) continue;
    const auto item = std::find_if(candidate.items.begin(), candidate.items.end(),
                                   [key](const zelvan::ConfigItem& each) { return each.key == key; });
    if (item != candidate.items.end()) return &item->value;
  }
  return nullptr;
}
