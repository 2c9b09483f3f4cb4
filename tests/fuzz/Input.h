#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace qel::fuzz {

using Bytes = std::vector<unsigned char>;

/// What a fuzzer's input is read as: numbers and bytes taken from its front, zeros behind its end.
class Input {
public:
    Input(const unsigned char* data, std::size_t size) : next_(data), left_(size) {}

    [[nodiscard]] bool IsUsedUp() const { return left_ == 0; }

    /// The next bytes as a number.
    template <typename Number>
    Number Take() {
        Number number{};
        const std::size_t taken = std::min(sizeof(number), left_);
        if (taken != 0) {
            std::memcpy(&number, next_, taken);
        }
        Skip(taken);
        return number;
    }
    bool Flag() { return (Take<std::uint8_t>() & 1U) != 0; }
    /// 0 to `limit` - 1, at most 255.
    unsigned Choice(unsigned limit) { return Take<std::uint8_t>() % limit; }
    /// 0 to `limit` - 1, at most 65535.
    unsigned Amount(unsigned limit) { return Take<std::uint16_t>() % limit; }

    /// The next `count` bytes, with zeros for those that are not there.
    Bytes TakeBytes(std::size_t count) {
        const std::size_t taken = std::min(count, left_);
        Bytes bytes(next_, next_ + taken);
        bytes.resize(count);
        Skip(taken);
        return bytes;
    }

    /// A number for something that should lie within `size`: often one at which a check turns.
    std::uint64_t Edge(std::uint64_t size) {
        constexpr std::uint64_t kTop = std::uint64_t{1} << 63U;
        const unsigned kind = Choice(8);
        const std::uint64_t near = Take<std::uint8_t>();
        switch (kind) {
            case 0:
                return near;
            case 1:
                return size - near;
            case 2:
                return size + near;
            case 3:
                return 0 - near;
            case 4:
                return kTop - near;
            case 5:
                return kTop + near;
            case 6:
                return size == 0 ? 0 : (near * 257) % size;
            default:
                return Take<std::uint64_t>();
        }
    }

    /// Bytes of a ring: often a few headers, and one more or less.
    std::uint64_t RingSize() {
        if (Flag()) {
            return Amount(4096);
        }
        const unsigned edge = 26 * Choice(8) + Choice(4);
        return edge == 0 ? 0 : edge - 1;
    }

private:
    void Skip(std::size_t count) {
        next_ += count;
        left_ -= count;
    }

    const unsigned char* next_;
    std::size_t left_;
};

}  // namespace qel::fuzz
