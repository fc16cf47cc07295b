#pragma once

#include <cstdint>

#include "pagestore/PagedFileStream.h"
#include "seekers/IPagedFileSeeker.h"

namespace Quorvel {

class PagedFilePackage;

// The stream that a package hands out for one stream of its set. It tells the package when it is
// destroyed, so that the package knows which streams are open.
class ChildFileStream : public PagedFileStream {
public:
    ChildFileStream(PagedFilePackage* package, std::uint64_t streamId, FilePageCache* cache,
                    const Util::RefPtr<IPagedFileSeeker>& seeker);

    // Detaches the stream from its package, which it may then outlive. The stream has no bytes from
    // then on.
    // REQUIRES: it has a package.
    void LeavePackage();

protected:
    ~ChildFileStream() override;

private:
    PagedFilePackage* package_;
    std::uint64_t streamId_;
};

}  // namespace Quorvel
