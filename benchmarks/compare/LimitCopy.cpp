// What copying into shared memory costs at least.

#include "Clock.h"
#include "Limits.h"
#include "Message.h"
#include "PacketHeader.h"
#include "Processes.h"
#include "RingBuffers.h"

namespace qel::bench {
nlohmann::json MeasureCopy(std::size_t size, std::size_t ring, CopyBy how, double seconds) {
    const std::size_t stride = size + kPacketHeaderSize;  // as records lie in a ring
    if (stride > ring) {
        return {{"refused", "the message is larger than the ring"}};
    }
    const auto copy = how == CopyBy::Memcpy ? CopyPlain : CopyNonTemporal;
    PinToCore(0);
    const SharedBytes memory(ring);
    Source source(size);
    std::size_t at = 0;
    std::uint64_t number = 0;
    const auto lap = [&] {
        for (at = 0; at + stride <= ring; at += stride) {
            copy(memory.Data() + at, source.Stamped({number++, Part::Middle}), size);
        }
    };
    lap();
    number = 0;
    const std::int64_t start = Now();
    std::int64_t elapsed = 0;
    while (static_cast<double>(elapsed) < seconds * 1e9) {
        lap();
        elapsed = Now() - start;
    }
    const double perSecond = static_cast<double>(number) * 1e9 / static_cast<double>(elapsed);
    return {{"messages", number},
            {"messages_per_second", perSecond},
            {"bytes_per_second", perSecond * static_cast<double>(size)}};
}

}  // namespace qel::bench
