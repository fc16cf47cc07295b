#pragma once

#include "quorvel/Export.h"
#include "vornutil/RefObject.h"
#include "vornutil/RefPtr.h"

namespace Quorvel {

/// A switch that hosts keep beside their effects. It has nothing to do with the effect cache or
/// with packages: the library never looks at it.
///
/// **Threads.** Any number of threads may read one object. A thread that changes it must be the
/// only one that uses it.
class QUORVEL_API VertexNormalsControl {
public:
    /// On, with an empty reference.
    VertexNormalsControl();

    bool enabled;                              ///< the switch
    Util::RefPtr<Util::IRefObject> reference;  ///< what the host attaches to it
};

}  // namespace Quorvel
