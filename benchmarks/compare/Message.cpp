#include "Message.h"

#include <cstring>
#include <stdexcept>

namespace qel::bench {
namespace {

constexpr std::size_t kCacheLine = 64;
constexpr std::size_t kProbe = 32;  // the byte of a line that is looked at; behind the stamp
constexpr std::size_t kPartAt = 8;

unsigned char LastByte(std::uint64_t number) noexcept {
    return static_cast<unsigned char>(number * 89 + 1);
}

std::vector<unsigned char> MakePicture(std::size_t size) {
    std::vector<unsigned char> bytes(size);
    for (std::size_t at = kStampBytes; at < size; ++at) {
        const std::size_t line = at / kCacheLine;
        bytes[at] = static_cast<unsigned char>(line * 7 + line / 256 + 61);
    }
    return bytes;
}

void PutStamp(unsigned char* memory, std::size_t size, Stamp stamp) noexcept {
    std::memcpy(memory, &stamp.number, sizeof(stamp.number));
    memory[kPartAt] = static_cast<unsigned char>(stamp.part);
    memory[size - 1] = LastByte(stamp.number);
}

/// Of a byte of each line. Lines that change places change it.
std::uint64_t SumOfLines(const unsigned char* data, std::size_t size) noexcept {
    std::uint64_t even = 0;
    std::uint64_t odd = 0;  // two sums, so that the reading and not the adding takes the time
    std::size_t at = kProbe;
    for (; at + kCacheLine + 1 < size; at += 2 * kCacheLine) {
        even = even * 31 + data[at];
        odd = odd * 37 + data[at + kCacheLine];
    }
    return at + 1 < size ? even + odd + data[at] : even + odd;
}

}  // namespace

Source::Source(std::size_t size) : picture_(MakePicture(size)) {
    if (size < kSmallestMessage) {
        throw std::invalid_argument("a message has 64 bytes at least");
    }
}

unsigned char* Source::Stamped(Stamp stamp) noexcept {
    PutStamp(picture_.data(), picture_.size(), stamp);
    return picture_.data();
}

void Source::MakeIn(unsigned char* memory, Stamp stamp, bool all) const noexcept {
    if (all) {
        std::memcpy(memory, picture_.data(), picture_.size());
    }
    PutStamp(memory, picture_.size(), stamp);
}

Checker::Checker(std::size_t size, bool readAll)
    : size_(size),
      readAll_(readAll),
      sum_(readAll ? SumOfLines(MakePicture(size).data(), size) : 0) {}

Part Checker::Check(const unsigned char* data, std::size_t size) noexcept {
    if (size != size_) {
        ++wrong_;
        return Part::Middle;
    }
    std::uint64_t number = 0;
    std::memcpy(&number, data, sizeof(number));
    const unsigned char part = data[kPartAt];
    const bool inOrder = number >= expected_;
    const bool isWhole =
        data[size - 1] == LastByte(number) && (!readAll_ || SumOfLines(data, size) == sum_);
    if (!inOrder || !isWhole || part < static_cast<unsigned char>(Part::WarmUp) ||
        part > static_cast<unsigned char>(Part::Last)) {
        ++wrong_;
        return Part::Middle;
    }
    lost_ += number - expected_;
    expected_ = number + 1;
    ++received_;
    return static_cast<Part>(part);
}

}  // namespace qel::bench
