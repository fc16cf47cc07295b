#include "torture/EffectBytes.h"

#include <cstring>
#include <random>

namespace Quorvel::Torture {

namespace {

struct Head {
    std::uint64_t checksum;
    std::uint64_t version;
    std::uint64_t size;
    std::uint64_t nameLength;
};

std::uint64_t Checksum(std::span<const unsigned char> bytes) {
    std::uint64_t hash = 0xCBF29CE484222325;
    for (const unsigned char byte : bytes.subspan(sizeof(std::uint64_t))) {
        hash = (hash ^ byte) * 0x100000001B3;
    }
    return hash;
}

}  // namespace

std::size_t SmallestEffect(const std::string& name) {
    return sizeof(Head) + name.size();
}

std::vector<unsigned char> MakeEffect(const std::string& name, std::uint64_t version,
                                      std::size_t size) {
    std::vector<unsigned char> bytes(size);
    std::minstd_rand random(static_cast<std::uint32_t>(version * 31 + name.size()));
    for (unsigned char& byte : bytes) {
        byte = static_cast<unsigned char>(random());
    }
    Head head = {0, version, size, name.size()};
    std::memcpy(bytes.data(), &head, sizeof head);
    std::memcpy(bytes.data() + sizeof head, name.data(), name.size());
    head.checksum = Checksum(bytes);
    std::memcpy(bytes.data(), &head, sizeof head);
    return bytes;
}

Verdict CheckEffect(const std::string& name, std::span<const unsigned char> bytes,
                    std::uint64_t& version) {
    Head head;
    if (bytes.size() < sizeof head) { return Verdict::Damaged; }
    std::memcpy(&head, bytes.data(), sizeof head);
    if (head.size != bytes.size() || head.nameLength > bytes.size() - sizeof head ||
        head.checksum != Checksum(bytes)) {
        return Verdict::Damaged;
    }
    if (head.nameLength != name.size() ||
        std::memcmp(bytes.data() + sizeof head, name.data(), name.size()) != 0) {
        return Verdict::SomebodyElses;
    }
    version = head.version;
    return Verdict::Intact;
}

}  // namespace Quorvel::Torture
