#include "PacketFileWriter.h"

#include <xxhash.h>

#include <algorithm>

namespace qel {
namespace {

constexpr std::size_t kMostWaiting = 256U << 10U;

}  // namespace

std::uint64_t PacketFileCheck::Of(const unsigned char* payload, std::uint64_t size) const {
    static_assert(sizeof(PacketFileCheck) >= sizeof(PacketFileEntry) + kPacketHeaderSize);
    const auto ahead = XXH3_64bits_withSeed(&header, sizeof(header),
                                            XXH3_64bits(&entry, offsetof(PacketFileEntry, check)));
    return XXH3_64bits_withSeed(payload, size, ahead);
}

void PacketFileWriter::Begin(const std::string& ringName, std::uint64_t ringSize,
                             std::int64_t begun) {
    PacketFileHead head;
    head.magic = kPacketFileMagic;
    head.version = kPacketFileVersion;
    head.length = sizeof(head);
    head.ringSize = ringSize;
    head.begun = begun;
    std::copy_n(ringName.begin(), std::min(ringName.size(), head.name.size() - 1),
                head.name.begin());
    Append(&head, sizeof(head));
}

bool PacketFileWriter::Packet(std::uint64_t time, const PacketHeader& header,
                              const ByteSpan& payload) {
    PacketFileCheck check;
    check.entry.kind = static_cast<std::uint32_t>(PacketFileKind::Packet);
    check.entry.time = time;
    check.entry.length = kPacketHeaderSize + payload.size();
    check.header = header;
    PacketFileEntry entry = check.entry;
    entry.check = check.Of(payload.data(), payload.size());
    Append(&entry, sizeof(entry));
    Append(&header, kPacketHeaderSize);
    if (payload.size() <= kMostWaiting / 4) {
        Append(payload.data(), payload.size());
        return waiting_.size() < kMostWaiting || Flush();
    }
    return Flush() && sink_(payload);
}

bool PacketFileWriter::Mark(std::uint64_t time, PacketFileKind kind) {
    PacketFileCheck check;
    check.entry.kind = static_cast<std::uint32_t>(kind);
    check.entry.time = time;
    PacketFileEntry entry = check.entry;
    entry.check = check.Of(nullptr, 0);
    Append(&entry, sizeof(entry));
    return Flush();
}

bool PacketFileWriter::Flush() {
    const bool isTaken = waiting_.empty() || sink_({waiting_.data(), waiting_.size()});
    waiting_.clear();
    return isTaken;
}

void PacketFileWriter::Append(const void* bytes, std::size_t size) {
    const auto* const from = static_cast<const unsigned char*>(bytes);
    waiting_.insert(waiting_.end(), from, from + size);
}

}  // namespace qel
