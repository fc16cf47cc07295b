#pragma once

#include "quorvel/Export.h"
#include "quorvel/IDataStreamSet.h"
#include "quorvel/PagedFilePackageConfig.h"
#include "vornutil/RefPtr.h"

namespace Quorvel {

/// @defgroup packages Packages
/// A package is one file that holds many byte streams. The size of a stream is fixed when it is
/// created. Only CreateFilePackage() and OpenFilePackage() return a package.
///
/// The file stays open for reading and writing until the last reference to the set is released,
/// which commits pending changes. There is no read-only mode and no locking: one thread of one
/// process at a time may use a package and its streams. A process that is forked must not use or
/// release those that it inherits: releasing a package commits.
/// @{

/// Starts a new, empty package. A missing file is created. An existing file does not become
/// shorter, and its old contents are no longer reachable. Never throws.
///
/// @param config  The file, and how much of it to keep in memory.
/// @return The package; an empty reference on any failure.
QUORVEL_API Util::RefPtr<IDataStreamSet> CreateFilePackage(const PagedFilePackageConfig& config);

/// Opens the package in a file. A missing file is created empty, and the call fails. Never throws.
///
/// @param config  The file, and how much of it to keep in memory.
/// @return The package; an empty reference when the file does not hold an intact one, or on any
///         other failure.
QUORVEL_API Util::RefPtr<IDataStreamSet> OpenFilePackage(const PagedFilePackageConfig& config);

/// @}

}  // namespace Quorvel
