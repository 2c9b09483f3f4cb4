#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qel::bench {

/// Where in the measurement a message stands.
enum class Part : std::uint8_t { WarmUp = 1, First, Middle, Last };

/// What the writer puts at the head of each message.
struct Stamp {
    std::uint64_t number;
    Part part;
};

inline constexpr std::size_t kStampBytes = 16;
inline constexpr std::size_t kSmallestMessage = 64;

/// What a writer sends: always the same picture, with the message's stamp at the head and a byte
/// made of its number at the end.
class Source {
public:
    explicit Source(std::size_t size);

    [[nodiscard]] std::size_t Size() const noexcept { return picture_.size(); }

    /// The message, in memory of the writer.
    [[nodiscard]] unsigned char* Stamped(Stamp stamp) noexcept;

    /// Makes the message where it is to lie, for transports that lend their memory.
    /// @param all  the whole of it, not only the stamp and the last byte
    void MakeIn(unsigned char* memory, Stamp stamp, bool all) const noexcept;

private:
    std::vector<unsigned char> picture_;
};

/// Checks and counts what a reader gets.
class Checker {
public:
    Checker(std::size_t size, bool readAll);

    /// @return the part that the message says it is
    Part Check(const unsigned char* data, std::size_t size) noexcept;

    [[nodiscard]] std::uint64_t Received() const noexcept { return received_; }
    [[nodiscard]] std::uint64_t Lost() const noexcept { return lost_; }
    [[nodiscard]] std::uint64_t Wrong() const noexcept { return wrong_; }

    /// The number that the next message has to have.
    [[nodiscard]] std::uint64_t Expected() const noexcept { return expected_; }

private:
    std::size_t size_;
    bool readAll_;
    std::uint64_t sum_;
    std::uint64_t expected_ = 0;
    std::uint64_t received_ = 0;
    std::uint64_t lost_ = 0;
    std::uint64_t wrong_ = 0;
};

}  // namespace qel::bench
