#include "Frames.h"

#include <cstring>

namespace qel {
namespace {

constexpr std::size_t kCacheLine = 64;
constexpr std::size_t kProbe = 32;  // the byte of a line that is looked at; behind the stamp
static_assert(sizeof(FrameStamp) == 16 && sizeof(FrameStamp) <= kProbe);

unsigned char PictureByte(std::size_t picture, std::size_t line) {
    return static_cast<unsigned char>(picture * 61 + line * 7 + line / 256);
}

unsigned char LastByte(std::uint64_t number) {
    return static_cast<unsigned char>(number * 89 + 1);
}

std::uint64_t SumOfLines(const unsigned char* data, std::size_t size) {
    std::uint64_t sum = 0;
    for (std::size_t at = kProbe; at + 1 < size; at += kCacheLine) {
        sum = sum * 31 + data[at];  // so that lines that change places are seen
    }
    return sum;
}

std::vector<unsigned char> MakePicture(std::size_t picture, std::size_t size) {
    std::vector<unsigned char> bytes(size);
    for (std::size_t at = 0; at < size; ++at) {
        bytes[at] = PictureByte(picture, at / kCacheLine);
    }
    return bytes;
}

}  // namespace

FrameSet::FrameSet(std::size_t frameBytes) {
    for (std::size_t picture = 0; picture < kCount; ++picture) {
        frames_[picture] = MakePicture(picture, frameBytes);
    }
}

std::vector<unsigned char>& FrameSet::Stamp(FrameStamp stamp) {
    std::vector<unsigned char>& frame = frames_[stamp.number % kCount];
    std::memcpy(frame.data(), &stamp, sizeof(stamp));
    frame.back() = LastByte(stamp.number);
    return frame;
}

FrameChecker::FrameChecker(std::size_t frameBytes, bool readAll)
    : frameBytes_(frameBytes), readAll_(readAll), sums_{} {
    for (std::size_t picture = 0; readAll && picture < sums_.size(); ++picture) {
        sums_[picture] = SumOfLines(MakePicture(picture, frameBytes).data(), frameBytes);
    }
}

std::optional<FrameStamp> FrameChecker::Check(const unsigned char* data, std::size_t size) const {
    if (size != frameBytes_) {
        return std::nullopt;
    }
    FrameStamp stamp{};
    std::memcpy(&stamp, data, sizeof(stamp));
    const std::size_t picture = stamp.number % FrameSet::kCount;
    if (data[kProbe] != PictureByte(picture, 0) || data[size - 1] != LastByte(stamp.number)) {
        return std::nullopt;
    }
    if (readAll_ && SumOfLines(data, size) != sums_[picture]) {
        return std::nullopt;
    }
    return stamp;
}

}  // namespace qel
