#pragma once

#include "quorvel/Export.h"
#include "quorvel/IDataStreamSet.h"
#include "quorvel/PagedFilePackageConfig.h"
#include "vornutil/RefPtr.h"

// A package is one file that holds many growable byte streams. These two functions are the only
// way to get one. The file stays open for reading and writing until the last reference to the set
// is released; releasing it commits what was not committed. There is no read-only mode, and no
// locking: a package, with all of its streams, is used by one thread and one process at a time.
namespace Quorvel {

// Starts a new, empty package in config.fileName. A missing file is created; an existing one does
// not become shorter, and what it held is no longer reachable. Returns an empty reference on any failure;
// never throws.
QUORVEL_API Util::RefPtr<IDataStreamSet> CreateFilePackage(const PagedFilePackageConfig& config);

// Opens the package that config.fileName holds. Returns an empty reference when the file holds no
// intact package or on any other failure; never throws. A missing file is created, empty, and then
// fails to open.
QUORVEL_API Util::RefPtr<IDataStreamSet> OpenFilePackage(const PagedFilePackageConfig& config);

}  // namespace Quorvel
