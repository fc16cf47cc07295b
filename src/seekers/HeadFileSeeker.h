#pragma once

#include "seekers/BaseHeadFileSeeker.h"

namespace Quorvel {

// Reads a head file: follows the chain of pages as far as needed and checks each page on the way.
class HeadFileSeeker : public BaseHeadFileSeeker {
public:
    using BaseHeadFileSeeker::BaseHeadFileSeeker;

    // Throws FileDataCorruptException when the cache can't provide a page, a page is not
    // acceptable, or the chain returns to an earlier page.
    void LoadPageInfo(std::uint64_t pageIndex) override;
};

}  // namespace Quorvel
