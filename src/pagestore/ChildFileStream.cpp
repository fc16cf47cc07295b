#include "pagestore/ChildFileStream.h"

#include "package/PagedFilePackage.h"
#include "platform/Assert.h"

namespace Quorvel {

ChildFileStream::ChildFileStream(PagedFilePackage* package, std::uint64_t streamId,
                                 FilePageCache* cache, const Util::RefPtr<IPagedFileSeeker>& seeker)
    : PagedFileStream(cache, seeker), package_(package), streamId_(streamId) {}

ChildFileStream::~ChildFileStream() {
    if (package_) { package_->ForgetOpenStream(streamId_); }
}

void ChildFileStream::LeavePackage() {
    QUORVEL_ASSERT(package_);
    Detach();
    package_ = nullptr;
}

}  // namespace Quorvel
