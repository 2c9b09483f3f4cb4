#include "PacketFileReader.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <utility>

#include "LapMarks.h"

namespace qel {
namespace {

ByteSpan BytesOf(void* place, std::size_t size) {
    return {static_cast<unsigned char*>(place), size};
}

}  // namespace

PacketFileReader::PacketFileReader(Source source, std::string name)
    : source_(std::move(source)),
      name_(std::move(name)),
      largest_(std::numeric_limits<std::uint64_t>::max()) {
    constexpr std::uint32_t kLongestHead = 1U << 16U;
    const std::size_t got = source_(BytesOf(&head_, sizeof(head_)));
    if (got < sizeof(head_) || head_.magic != kPacketFileMagic) {
        throw PacketFileError(name_ + " is no recording");
    }
    if (head_.version != kPacketFileVersion) {
        throw PacketFileError(
            fmt::format("{} is a recording of version {}, and {} can be read here", name_,
                        head_.version, kPacketFileVersion));
    }
    if (head_.length < sizeof(head_) || head_.length > kLongestHead ||
        head_.ringSize > std::numeric_limits<std::int64_t>::max() || head_.name.back() != '\0') {
        throw PacketFileError(name_ + " is damaged: its head cannot be");
    }
    std::vector<unsigned char> rest(head_.length - sizeof(head_));
    if (source_({rest.data(), rest.size()}) < rest.size()) {
        throw PacketFileError(name_ + " is damaged: its head is not there in full");
    }
    ringName_ = head_.name.data();
    good_ = head_.length;
}

void PacketFileReader::Fail(const std::string& what) const {
    throw PacketFileError(fmt::format("{} is damaged at byte {}: {}", name_, good_, what));
}

void PacketFileReader::RequirePossible(const PacketFileCheck& check) const {
    const PacketFileEntry& entry = check.entry;
    const bool isPacket = entry.kind == static_cast<std::uint32_t>(PacketFileKind::Packet);
    const bool isMark = entry.kind == static_cast<std::uint32_t>(PacketFileKind::EndOfStream) ||
                        entry.kind == static_cast<std::uint32_t>(PacketFileKind::Overrun);
    if ((!isPacket && !isMark) || entry.reserved != 0 || (isMark && entry.length != 0)) {
        Fail("no entry begins there");
    }
    if (isPacket && (entry.length < kPacketHeaderSize ||
                     entry.length > std::numeric_limits<std::int64_t>::max())) {
        Fail("its length cannot be");
    }
}

/// False at the end of the file.
bool PacketFileReader::ReadHead(PacketFileCheck& check) {
    const std::size_t got = source_(BytesOf(&check.entry, sizeof(check.entry)));
    isTorn_ = got != 0 && got < sizeof(check.entry);
    if (got < sizeof(check.entry)) {
        return false;
    }
    check_ = std::exchange(check.entry.check, 0);
    RequirePossible(check);
    if (check.entry.length == 0) {
        return true;
    }
    std::array<unsigned char, kPacketHeaderSize> header{};
    isTorn_ = source_({header.data(), header.size()}) < header.size();
    if (isTorn_) {
        return false;
    }
    check.header = HeaderOf(header.data());
    const std::uint64_t payload = check.entry.length - kPacketHeaderSize;
    if (check.header.length != payload) {
        Fail("its packet has another length");
    }
    if (payload > largest_) {
        throw PacketFileError(fmt::format("{}: a packet of {} bytes is more than the {} that fit",
                                          name_, payload, largest_));
    }
    return true;
}

/// Takes memory only as far as there are bytes.
bool PacketFileReader::ReadPayload(std::uint64_t size) {
    constexpr std::uint64_t kChunk = 1U << 20U;
    for (std::uint64_t had = 0; had < size;) {
        const std::uint64_t chunk = std::min(std::max(kChunk, had), size - had);
        if (payload_.size() < had + chunk) {
            payload_.resize(had + chunk);
        }
        if (source_({payload_.data() + had, chunk}) < chunk) {
            return false;
        }
        had += chunk;
    }
    return true;
}

std::optional<PacketFileReader::Entry> PacketFileReader::Next() {
    PacketFileCheck check;
    if (!ReadHead(check)) {
        return std::nullopt;
    }
    const std::uint64_t size = check.entry.length == 0 ? 0 : check.header.length;
    isTorn_ = !ReadPayload(size);
    if (isTorn_) {
        return std::nullopt;
    }
    if (check.Of(payload_.data(), size) != check_) {
        Fail("its check does not hold");
    }
    good_ += sizeof(PacketFileEntry) + check.entry.length;
    return Entry{static_cast<PacketFileKind>(check.entry.kind),
                 check.entry.time,
                 check.header,
                 {payload_.data(), size}};
}

std::optional<PacketFileReader::Entry> PacketFileReader::NextHead(
    const std::function<bool(std::uint64_t)>& skip) {
    PacketFileCheck check;
    if (!ReadHead(check)) {
        return std::nullopt;
    }
    isTorn_ = check.entry.length != 0 && !skip(check.header.length);
    if (isTorn_) {
        return std::nullopt;
    }
    good_ += sizeof(PacketFileEntry) + check.entry.length;
    return Entry{static_cast<PacketFileKind>(check.entry.kind), check.entry.time, check.header, {}};
}

}  // namespace qel
