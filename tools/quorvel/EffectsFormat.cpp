#include "tools/quorvel/EffectsFormat.h"

#include "examples/effecthost/CachedEffect.h"

namespace Quorvel::Tool {

void EffectsFormat::AddTo(Command& command) {
    command
        .AddOption("--effects-format", name_,
                   "check the bytes of effects, too: \"effecthost\" for the checksums of the "
                   "example host")
        .OneOf({"effecthost"});
}

bool EffectsFormat::IsIntact(const Format::IndexEntry& entry, const Format::Bytes& data) const {
    return !IsKnown() ||
           EffectHost::UnpackCachedEffect(entry.name, data.data(), data.size()).has_value();
}

}  // namespace Quorvel::Tool
