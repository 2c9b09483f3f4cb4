#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "ByteSpan.h"
#include "PacketFile.h"

namespace qel {

/// A recording that cannot be used, or not from here on. The text names the file and the place.
class PacketFileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Reads a recording from its start. Nothing that stands in it can do harm: no more memory is used
/// than a payload may have that is asked for, and what does not check is not delivered.
///
/// Thread use: one thread at a time.
class PacketFileReader {
public:
    /// Fills the span as far as there are bytes, waiting for them; fewer only at the end.
    using Source = std::function<std::size_t(const ByteSpan&)>;

    struct Entry {
        PacketFileKind kind = PacketFileKind::Packet;
        std::uint64_t time = 0;
        PacketHeader header;
        ByteSpan payload;  ///< valid until the next call
    };

    /// Reads the head.
    /// @param name  of the file, for errors
    /// @throws PacketFileError if this is no recording, or of another version
    PacketFileReader(Source source, std::string name);

    [[nodiscard]] const std::string& RingName() const noexcept { return ringName_; }
    [[nodiscard]] std::uint64_t RingSize() const noexcept { return head_.ringSize; }

    /// Payloads of more bytes are refused.
    void SetLargestPayload(std::uint64_t bytes) noexcept { largest_ = bytes; }

    /// The next entry; nothing at the end.
    /// @throws PacketFileError for a damaged entry, and a payload that is too large
    std::optional<Entry> Next();

    /// As `Next`, but the payload is not read and not checked: it is passed over by `skip`, which
    /// returns false where there are fewer bytes.
    std::optional<Entry> NextHead(const std::function<bool(std::uint64_t)>& skip);

    /// True if the last entry was not there in full.
    [[nodiscard]] bool IsTorn() const noexcept { return isTorn_; }

    /// Bytes up to and with the last entry that was there in full.
    [[nodiscard]] std::uint64_t Good() const noexcept { return good_; }

private:
    [[nodiscard]] bool ReadHead(PacketFileCheck& check);
    [[nodiscard]] bool ReadPayload(std::uint64_t size);
    void RequirePossible(const PacketFileCheck& check) const;
    [[noreturn]] void Fail(const std::string& what) const;

    Source source_;
    std::string name_;
    PacketFileHead head_;
    std::string ringName_;
    std::uint64_t largest_;
    std::vector<unsigned char> payload_;
    std::uint64_t check_ = 0;  ///< of the entry whose head was read last
    std::uint64_t good_ = 0;
    bool isTorn_ = false;
};

}  // namespace qel
