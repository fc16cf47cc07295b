#pragma once

#include "seekers/BaseHeadFileSeeker.h"

namespace Quorvel {

// Writes a head file: writes the header of each page when it first reaches the page. Writing the
// whole file reaches every page; a page that is never reached gets no header.
class HeadFileWriteOnlySeeker : public BaseHeadFileSeeker {
public:
    using BaseHeadFileSeeker::BaseHeadFileSeeker;

    // Throws FileDataCorruptException when the cache can't provide a page.
    void LoadPageInfo(std::uint64_t pageIndex) override;
};

}  // namespace Quorvel
