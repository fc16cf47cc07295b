#pragma once

#include <string_view>

namespace EffectHost {

// Whether text matches a pattern as a whole: * stands for any run of characters, ? for any one.
bool MatchesPattern(std::string_view pattern, std::string_view text);

}  // namespace EffectHost
