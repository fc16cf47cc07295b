#include "platform/Path.h"

namespace Quorvel::Platform {

const char kPathSeparator = '\\';

}  // namespace Quorvel::Platform
