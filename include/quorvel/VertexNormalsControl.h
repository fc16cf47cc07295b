#pragma once

#include "quorvel/Export.h"
#include "vornutil/RefObject.h"
#include "vornutil/RefPtr.h"

namespace Quorvel {

// A switch that hosts keep beside their effects. A new one is enabled and has an empty reference.
class QUORVEL_API VertexNormalsControl {
public:
    VertexNormalsControl();

    bool enabled;
    Util::RefPtr<Util::IRefObject> reference;
};

}  // namespace Quorvel
