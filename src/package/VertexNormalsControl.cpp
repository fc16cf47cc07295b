#include "quorvel/VertexNormalsControl.h"

namespace Quorvel {

VertexNormalsControl::VertexNormalsControl() : enabled(true) {}

}  // namespace Quorvel
