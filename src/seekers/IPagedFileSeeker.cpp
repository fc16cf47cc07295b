#include "seekers/IPagedFileSeeker.h"

namespace Quorvel {

IPagedFileSeeker::~IPagedFileSeeker() {
    ResetTables();
}

void IPagedFileSeeker::ResetTables() {
    byteSize = 0;
    pageCount = 0;
    pageNumbers = nullptr;
    pageRanges = nullptr;
}

}  // namespace Quorvel
