#include "quorvel/IDataStream.h"

namespace Quorvel {

IDataStream::IDataStream() = default;

IDataStream::~IDataStream() = default;

}  // namespace Quorvel
