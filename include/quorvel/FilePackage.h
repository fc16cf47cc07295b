#pragma once

#include "quorvel/Export.h"
#include "quorvel/IDataStreamSet.h"
#include "quorvel/PagedFilePackageConfig.h"
#include "vornutil/RefPtr.h"

// A package is one file that holds many byte streams. The size of a stream is fixed when it is
// created. Only these two functions return a package. The file stays open for reading and writing
// until the last reference to the set is released, which commits pending changes. There is no
// read-only mode and no locking: one thread of one process at a time may use a package and its
// streams.
namespace Quorvel {

// Starts a new, empty package in config.fileName. A missing file is created. An existing file does
// not become shorter, and its old contents are no longer reachable. Returns an empty reference on
// any failure; never throws.
QUORVEL_API Util::RefPtr<IDataStreamSet> CreateFilePackage(const PagedFilePackageConfig& config);

// Opens the package in config.fileName. Returns an empty reference when the file does not hold an
// intact package, or on any other failure; never throws. A missing file is created empty, and the
// call fails.
QUORVEL_API Util::RefPtr<IDataStreamSet> OpenFilePackage(const PagedFilePackageConfig& config);

}  // namespace Quorvel
