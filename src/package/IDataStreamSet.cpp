#include "quorvel/IDataStreamSet.h"

namespace Quorvel {

IDataStreamSet::IDataStreamSet() = default;

IDataStreamSet::~IDataStreamSet() = default;

}  // namespace Quorvel
