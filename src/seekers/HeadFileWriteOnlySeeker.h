#pragma once

#include "seekers/BaseHeadFileSeeker.h"

namespace Quorvel {

// The seeker that writes a head file: it writes the header of each page when it first comes to it.
// Whoever writes the whole file comes to every page; one that is never reached gets no header.
class HeadFileWriteOnlySeeker : public BaseHeadFileSeeker {
public:
    using BaseHeadFileSeeker::BaseHeadFileSeeker;

    // Throws FileDataCorruptException when the cache has no page to give.
    void LoadPageInfo(std::uint64_t pageIndex) override;
};

}  // namespace Quorvel
