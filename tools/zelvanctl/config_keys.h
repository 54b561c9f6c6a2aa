// The keys of the settings file by name: which one is meant, which ones are secret.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "config/settings.h"

namespace zelvan::ctl {

// Returns the row of a key in its section; for section "share" the row of the secrets, whatever the key.  Null when the
// server knows no such key there.
const Setting* find_setting(std::string_view section, std::string_view key);

// Returns the row of a key in any section but "share"; null when there is none.
const Setting* find_key(std::string_view key);

// True when the server reads a section of that name.
bool is_section(std::string_view name);

// True when the value must not be shown: passwords and shared secrets.
bool is_secret(const Setting& setting);

// True for a dotted IPv4 address as the server writes it.
bool is_client_address(std::string_view text);

// Returns the fewest insertions, deletions and replacements of one byte that make one text of the other.
std::size_t edit_distance(std::string_view from, std::string_view to);

// Returns the row whose key is nearest to a word that is none, letter case aside; null when nothing is near.
const Setting* nearest_key(std::string_view word);

// Returns the section nearest to a word that is none; empty when nothing is near.
std::string nearest_section(std::string_view word);

// Returns the text without blanks and tabs at its ends.
std::string_view trimmed(std::string_view text);

}  // namespace zelvan::ctl
