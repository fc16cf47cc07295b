#include "tool/InterruptedSave.h"

#include <cstring>
#include <vector>

#include "format/PackageImage.h"
#include "pagestore/RollbackJournal.h"

namespace Quorvel::Tool {

void InterruptSave(const std::string& path, std::uint64_t page) {
    Format::Bytes file = Format::ReadWholeFile(path);
    const auto bytes = [&](std::uint64_t number) {
        return file.data() + Format::PageOffset(number);
    };
    RollbackJournal journal(path.c_str(), file.size(),
                            std::vector<bool>(file.size() / Format::kPageSize, true));
    journal.KeepPage(Format::kFirstPage, bytes(Format::kFirstPage));
    journal.KeepPage(page, bytes(page));
    static_cast<void>(journal.PrepareWrite(page));
    journal.BeginOverwriting();
    const HeadPageMark mark = journal.Mark();
    std::memcpy(file.data(), &mark, sizeof mark);
    std::memset(bytes(page), 0, Format::kPageSize);
    Format::WriteWholeFile(path, file);
}

}  // namespace Quorvel::Tool
