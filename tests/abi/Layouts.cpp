// This code never runs: the compiler prints the layouts of the classes that are used here, and
// check-layouts compares them with layouts.txt. The compiler prints a virtual table only if one of
// the class's own operations is called.
#include "effectcache/EffectCacheImpl.h"
#include "package/PagedFilePackage.h"
#include "pagestore/ChildFileStream.h"
#include "pagestore/StdioFile.h"
#include "quorvel/Quorvel.h"
#include "seekers/HeadFileSeeker.h"
#include "seekers/HeadFileWriteOnlySeeker.h"

namespace Quorvel {

void UseTables(IDataStreamSet& set, PagedFilePackage& package, IDataStream& stream,
               PagedFileStream& pagedStream, IPageAllocator& allocator,
               PageAllocator& pageAllocator, IPagedFileSeeker& seeker, BaseHeadFileSeeker& baseHead,
               HeadFileSeeker& head, HeadFileWriteOnlySeeker& writeOnlyHead,
               ChildFileSeeker& child) {
    set.Load();
    package.Load();
    stream.GetSize();
    pagedStream.GetSize();
    allocator.FreePage(10);
    pageAllocator.FreePage(10);
    seeker.LoadPageInfo(0);
    baseHead.ValidatePageInfo(0);
    head.LoadPageInfo(0);
    writeOnlyHead.LoadPageInfo(0);
    child.LoadPageInfo(0);
}

struct HookedMemory : MultiProcessMemory {
    void CallHook();
};
void HookedMemory::CallHook() {
    OnMemoryCreated(nullptr);
}

struct HookedTimeStamp : MultiProcessTimeStamp {
    void CallHook();
};
void HookedTimeStamp::CallHook() {
    OnMemoryCreated(nullptr);
}

void DestroyWithTable(FilePageCache* cache) {
    delete cache;
}

}  // namespace Quorvel
