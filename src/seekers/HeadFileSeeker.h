#pragma once

#include "seekers/BaseHeadFileSeeker.h"

namespace Quorvel {

// The seeker that reads a head file: it follows the chain of pages as far as it is asked to, and
// checks each page on the way.
class HeadFileSeeker : public BaseHeadFileSeeker {
public:
    using BaseHeadFileSeeker::BaseHeadFileSeeker;

    // Throws FileDataCorruptException when a page can't be had, is not acceptable, or returns to an
    // earlier one.
    void LoadPageInfo(std::uint64_t pageIndex) override;
};

}  // namespace Quorvel
