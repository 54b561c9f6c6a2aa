#include "zelvanctl/config_keys.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <numeric>
#include <vector>

namespace zelvan::ctl {
namespace {

std::string lower(std::string_view text) {
  std::string out(text);
  std::ranges::transform(out, out.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

// How far a slip of the finger goes for a name of that length.
std::size_t slip(std::string_view name) { return std::max<std::size_t>(1, name.size() / 4); }

}  // namespace

const Setting* find_setting(std::string_view section, std::string_view key) {
  const auto found = std::ranges::find_if(kSettings, [&](const Setting& each) {
    return section == each.section && (key == each.key || each.group == SettingGroup::kShare);
  });
  return found != kSettings.end() ? &*found : nullptr;
}

const Setting* find_key(std::string_view key) {
  const auto found = std::ranges::find_if(
      kSettings, [&](const Setting& each) { return key == each.key && each.group != SettingGroup::kShare; });
  return found != kSettings.end() ? &*found : nullptr;
}

bool is_section(std::string_view name) {
  return std::ranges::any_of(kSettings, [&](const Setting& each) { return name == each.section; });
}

bool is_secret(const Setting& setting) {
  const std::string_view key = setting.key;
  return setting.group == SettingGroup::kShare || key == "otp_pwd" || key == "smtp_auth_pwd";
}

bool is_client_address(std::string_view text) {
  in_addr address{};
  std::array<char, INET_ADDRSTRLEN> written{};
  return inet_pton(AF_INET, std::string(text).c_str(), &address) == 1 &&
         inet_ntop(AF_INET, &address, written.data(), written.size()) != nullptr && text == written.data();
}

std::size_t edit_distance(std::string_view from, std::string_view to) {
  std::vector<std::size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), 0);
  for (std::size_t i = 1; i <= from.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= to.size(); ++j) {
      const std::size_t replaced = diagonal + (from[i - 1] == to[j - 1] ? 0 : 1);
      diagonal = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, replaced});
    }
  }
  return row.back();
}

const Setting* nearest_key(std::string_view word) {
  const Setting* nearest = nullptr;
  std::size_t least = 0;
  for (const Setting& each : kSettings) {
    if (each.group == SettingGroup::kShare) continue;
    const std::size_t distance = edit_distance(lower(trimmed(word)), lower(each.key));
    if (distance > slip(each.key) || (nearest != nullptr && distance >= least)) continue;
    nearest = &each;
    least = distance;
  }
  return nearest;
}

std::string nearest_section(std::string_view word) {
  std::string nearest;
  std::size_t least = 0;
  for (const Setting& each : kSettings) {
    const std::size_t distance = edit_distance(lower(trimmed(word)), lower(each.section));
    if (distance > slip(each.section) || (!nearest.empty() && distance >= least)) continue;
    nearest = each.section;
    least = distance;
  }
  return nearest;
}

std::string_view trimmed(std::string_view text) {
  const std::size_t start = text.find_first_not_of(" \t");
  if (start == std::string_view::npos) return {};
  return text.substr(start, text.find_last_not_of(" \t") - start + 1);
}

}  // namespace zelvan::ctl
