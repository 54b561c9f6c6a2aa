// SQL scripts, taken apart into statements.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zelvan::ctl {

// Returns the statements of a script, without comments and without the ";" that ends each.  Quoted text ('...', "...",
// `...`, and $tag$...$tag$) is kept as it is; so is a trigger's "begin ... end" after "create trigger".
// "delimiter X" on a line of its own, as MariaDB's shell knows it, makes X end the statements after it.
std::vector<std::string> split_statements(std::string_view script);

}  // namespace zelvan::ctl
