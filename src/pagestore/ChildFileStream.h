#pragma once

#include <cstdint>

#include "pagestore/PagedFileStream.h"
#include "seekers/ChildFileSeeker.h"

namespace Quorvel {

class PagedFilePackage;

// The stream that a package hands out for one stream of its set. It tells the package when it dies,
// so that the package knows which streams are open, and leaves it the seeker to use again.
class ChildFileStream : public PagedFileStream {
public:
    ChildFileStream(PagedFilePackage* package, std::uint64_t streamId, FilePageCache* cache,
                    const Util::RefPtr<ChildFileSeeker>& seeker);

    // Goes on over a seeker that describes the same bytes in other places, as PagedFileStream does.
    void MoveTo(const Util::RefPtr<ChildFileSeeker>& seeker);

    // Makes the stream one without bytes, which may outlive its package.
    void LeavePackage();

protected:
    ~ChildFileStream() override;

private:
    PagedFilePackage* package_;
    std::uint64_t streamId_;
};

}  // namespace Quorvel
