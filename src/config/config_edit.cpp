// The editing half of CConfigFile.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "config/ConfigFile.h"

namespace {

using Items = std::vector<zelvan::ConfigItem>;

zelvan::ConfigItem* find_item(Items& items, const char* key) {
  const auto item = std::ranges::find(items, key, &zelvan::ConfigItem::key);
  return item != items.end() ? &*item : nullptr;
}

// Writes the whole text; true when every byte went out.
bool write_all(std::FILE* file, const std::string& text) {
  // Unbuffered, so that a full disk shows here and not in fclose.
  (void)std::setvbuf(file, nullptr, _IONBF, 0);
  return std::fwrite(text.data(), 1, text.size(), file) == text.size();
}

}  // namespace

zelvan::ConfigSection* CConfigFile::find_section(const char* section) {
  const auto found = std::ranges::find(text_.sections, section, &zelvan::ConfigSection::name);
  return found != text_.sections.end() ? &*found : nullptr;
}

int CConfigFile::additem(const char* section, const char* key, const char* value) {
  zelvan::ConfigSection* found = find_section(section);
  if (found == nullptr) {
    text_.sections.push_back({section, {{key, value}}});
  } else if (zelvan::ConfigItem* item = find_item(found->items, key)) {
    item->value = value;
  } else {
    found->items.push_back({key, value});
  }
  return CONFIG_EDIT_OK;
}

int CConfigFile::setnewvalue(const char* section, const char* key, const char* value) {
  for (zelvan::ConfigSection& candidate : text_.sections) {
    if (candidate.name != section) continue;
    if (zelvan::ConfigItem* item = find_item(candidate.items, key)) {
      item->value = value;
      return CONFIG_EDIT_OK;
    }
  }
  return CONFIG_EDIT_NOT_FOUND;
}

void CConfigFile::removeitem(const char* section, const char* key) {
  for (zelvan::ConfigSection& candidate : text_.sections) {
    if (candidate.name != section) continue;
    std::erase_if(candidate.items, [key](const zelvan::ConfigItem& item) { return item.key == key; });
  }
}

int CConfigFile::addsection(const char* section) {
  if (section == nullptr) return CONFIG_EDIT_NO_NAME;
  if (find_section(section) == nullptr) text_.sections.push_back({section, {}});
  return CONFIG_EDIT_OK;
}

void CConfigFile::removesection(const char* section) {
  std::erase_if(text_.sections, [section](const zelvan::ConfigSection& each) { return each.name == section; });
}

int CConfigFile::updateconfig() {
  if (path_ == nullptr) return UPDATECONFIG_NO_PATH;
  std::FILE* const file = std::fopen(path_.get(), "w");
  if (file == nullptr) return UPDATECONFIG_NO_FILE;
  std::string text = zelvan::write_config_text(text_);
  const bool written = write_all(file, text);
  explicit_bzero(text.data(), text.size());
  const bool closed = std::fclose(file) == 0;  // a remote file system may tell only now
  return written && closed ? UPDATECONFIG_OK : UPDATECONFIG_SHORT;
}
