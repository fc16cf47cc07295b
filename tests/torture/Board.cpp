#include "torture/Board.h"

#include "quorvel/AutoMutex.h"

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

std::atomic<Moment>& Board::MomentOf(std::uint64_t slot) {
    return content_->moments[slot];
}

std::atomic<Moment>& Board::Aim() {
    return content_->aim;
}

std::atomic<bool>& Board::IsEnding() {
    return content_->isEnding;
}

void Board::ForgetSaved() {
    for (auto& versions : content_->saved) {
        for (std::atomic<std::uint64_t>& version : versions) {
            version = 0;
        }
    }
}

std::atomic<std::uint64_t>& Board::Room() {
    return content_->room;
}

std::atomic<std::uint64_t>& Board::operator[](Count count) {
    return content_->counts[static_cast<std::uint64_t>(count)];
}

// After a wait for an abandoned mutex the process owns it, although Lock returns no block.
void Board::Repair() {
    Lock(kWaitForever);
    Unlock();
}

// A new block is all zeros, which is the initial value of everything but the free bytes.
void Board::OnMemoryCreated(void* block) {
    content_ = static_cast<Content*>(block);
    content_->room = kRealRoom;
}

void Board::OnMemoryAttached(void* block) {
    content_ = static_cast<Content*>(block);
}

}  // namespace Quorvel::Torture
