#include "quorvel/FilePackage.h"

#include "package/PagedFilePackage.h"
#include "quorvel/Exceptions.h"

namespace Quorvel {

Util::RefPtr<IDataStreamSet> CreateFilePackage(const PagedFilePackageConfig& config) {
    try {
        const Util::RefPtr<PagedFilePackage> package(new PagedFilePackage(config));
        if (!package->Create()) {
            throw InvalidParameterException();
        }
        return package;
    } catch (...) {
        return {};
    }
}

Util::RefPtr<IDataStreamSet> OpenFilePackage(const PagedFilePackageConfig& config) {
    try {
        const Util::RefPtr<PagedFilePackage> package(new PagedFilePackage(config));
        if (!package->Load()) {
            throw FileDataCorruptException();
        }
        return package;
    } catch (...) {
        return {};
    }
}

}  // namespace Quorvel
