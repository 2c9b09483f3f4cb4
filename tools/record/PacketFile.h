#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "PacketHeader.h"

namespace qel {

/// The raw form of a recording, a ".qev" file. All numbers are in the device's byte order.
///
///     offset  0         8         12        16        24        32                 288
///             +---------+---------+---------+---------+---------+------------------+
///             | magic   | version | length  | ring    | begun   | name, zeros      |
///             +---------+---------+---------+---------+---------+------------------+
///
///     then, without gaps, one entry behind the other:
///
///             0         4         8         16        24        32
///             +---------+---------+---------+---------+---------+----------- - -
///             | kind    | 0       | time    | length  | check   | `length` bytes
///             +---------+---------+---------+---------+---------+----------- - -
///
/// A packet's bytes are its header as it stands in the ring (26 bytes) and its payload; other
/// entries have none. What stands in the file up to any moment is a recording: it can be read while
/// it is written, and after the writer was killed, up to the entry that is not there in full.
struct PacketFileHead {
    std::array<unsigned char, 8> magic{};
    std::uint32_t version = 0;
    std::uint32_t length = 0;    ///< of this head: the first entry begins there
    std::uint64_t ringSize = 0;  ///< bytes of the data area
    std::int64_t begun = 0;      ///< when `time` was 0, in nanoseconds since 1970
    std::array<char, 256> name{};
};

enum class PacketFileKind : std::uint32_t {
    Packet = 1,
    EndOfStream = 2,  ///< the writer's end mark
    Overrun = 3,      ///< packets may have been missed here
};

struct PacketFileEntry {
    std::uint32_t kind = 0;
    std::uint32_t reserved = 0;
    std::uint64_t time = 0;    ///< of arrival: nanoseconds since `begun`
    std::uint64_t length = 0;  ///< bytes behind this
    std::uint64_t check = 0;   ///< XXH3 of the payload, seeded by that of all that is ahead of it
};

inline constexpr std::array<unsigned char, 8> kPacketFileMagic{0x89, 'q',  'e',  'v',
                                                               '\r', '\n', 0x1a, '\n'};
inline constexpr std::uint32_t kPacketFileVersion = 1;

/// The bytes of a packet's entry that stand ahead of its payload and go into its check.
struct PacketFileCheck {
    PacketFileEntry entry;  ///< with a check of 0
    PacketHeader header;

    /// @param payload  `size` bytes
    [[nodiscard]] std::uint64_t Of(const unsigned char* payload, std::uint64_t size) const;
};

static_assert(sizeof(PacketFileHead) == 288);
static_assert(offsetof(PacketFileHead, version) == 8);
static_assert(offsetof(PacketFileHead, length) == 12);
static_assert(offsetof(PacketFileHead, ringSize) == 16);
static_assert(offsetof(PacketFileHead, begun) == 24);
static_assert(offsetof(PacketFileHead, name) == 32);
static_assert(sizeof(PacketFileEntry) == 32);
static_assert(offsetof(PacketFileEntry, time) == 8);
static_assert(offsetof(PacketFileEntry, length) == 16);
static_assert(offsetof(PacketFileEntry, check) == 24);

}  // namespace qel
