#pragma once

#include <string>

#include "format/EffectCacheImage.h"
#include "tools/quorvel/Command.h"

namespace Quorvel::Tool {

// What to say when the contents of effects were not checked.
constexpr char kContentsUnchecked[] =
    "the contents of streams have no checksum: damage to them goes unnoticed, unless "
    "--effects-format says where to find one";

// What the program knows about the bytes of effects. The cache keeps no checksum of them, but the
// host that stored them may have.
class EffectsFormat {
public:
    // Adds the option --effects-format.
    void AddTo(Command& command);

    // True if a format was given, so that IsIntact means something.
    bool IsKnown() const { return !name_.empty(); }

    // False if an effect's bytes are damaged, or belong to another name.
    bool IsIntact(const Format::IndexEntry& entry, const Format::Bytes& data) const;

private:
    std::string name_;
};

}  // namespace Quorvel::Tool
