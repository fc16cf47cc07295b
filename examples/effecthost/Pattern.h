#pragma once

#include <string_view>

namespace EffectHost {

// True if the whole text matches a pattern: * matches any run of characters, ? any one character.
bool MatchesPattern(std::string_view pattern, std::string_view text);

}  // namespace EffectHost
