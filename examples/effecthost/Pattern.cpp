#include "Pattern.h"

#include <cstddef>

namespace EffectHost {

// Walks both strings at once. A star first matches nothing. At a mismatch the last star matches one
// more character and the walk resumes after it. Earlier stars never need another try.
bool MatchesPattern(std::string_view pattern, std::string_view text) {
    constexpr std::size_t kNoStar = std::string_view::npos;
    std::size_t patternAt = 0;
    std::size_t textAt = 0;
    std::size_t star = kNoStar;
    std::size_t starTextAt = 0;

    while (textAt < text.size()) {
        if (patternAt < pattern.size() && pattern[patternAt] == '*') {
            star = patternAt++;
            starTextAt = textAt;
        } else if (patternAt < pattern.size() &&
                   (pattern[patternAt] == '?' || pattern[patternAt] == text[textAt])) {
            ++patternAt;
            ++textAt;
        } else if (star != kNoStar) {
            patternAt = star + 1;
            textAt = ++starTextAt;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', patternAt) == std::string_view::npos;
}

}  // namespace EffectHost
