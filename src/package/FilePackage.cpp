#include "quorvel/FilePackage.h"

#include "package/PagedFilePackage.h"

namespace Quorvel {

Util::RefPtr<IDataStreamSet> CreateFilePackage(const PagedFilePackageConfig& config) {
    return PagedFilePackage::Create(config);
}

Util::RefPtr<IDataStreamSet> OpenFilePackage(const PagedFilePackageConfig& config) {
    return PagedFilePackage::Open(config);
}

}  // namespace Quorvel
