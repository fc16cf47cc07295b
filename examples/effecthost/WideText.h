#pragma once

#include <string>
#include <string_view>

namespace EffectHost {

// Converts between UTF-16 and a Windows code page. A character that the page lacks becomes a
// similar one, or a question mark.
std::wstring ToWide(std::string_view text, unsigned int codePage);
std::string FromWide(std::wstring_view text, unsigned int codePage);

}  // namespace EffectHost
