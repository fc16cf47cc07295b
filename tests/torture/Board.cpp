#include "torture/Board.h"

namespace Quorvel::Torture {

Board::Board(const std::string& name) {
    Initialize(name.c_str(), sizeof(Content));
}

std::atomic<std::uint64_t>& Board::Issued(std::uint64_t slot, std::uint64_t name) {
    return content_->issued[slot][name];
}

std::atomic<std::uint64_t>& Board::Saved(std::uint64_t slot, std::uint64_t name) {
    return content_->saved[slot][name];
}

std::atomic<std::uint64_t>& Board::operator[](Count count) {
    return content_->counts[static_cast<std::uint64_t>(count)];
}

// A fresh block is all zero, which is what every number starts from.
void Board::OnMemoryCreated(void* block) {
    content_ = static_cast<Content*>(block);
}

void Board::OnMemoryAttached(void* block) {
    content_ = static_cast<Content*>(block);
}

}  // namespace Quorvel::Torture
