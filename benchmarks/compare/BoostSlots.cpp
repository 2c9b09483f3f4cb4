// boost::lockfree::spsc_queue in shared memory: a fixed number of slots of a message's size.

#include <sys/mman.h>

#include <algorithm>
#include <boost/lockfree/spsc_queue.hpp>
#include <cerrno>
#include <new>
#include <stdexcept>

#include "BoostKinds.h"
#include "Clock.h"
#include "RingError.h"

namespace qel::bench {
namespace {

constexpr std::size_t kMemory = 64 << 20;

template <std::size_t kSize>
struct Slot {
    unsigned char bytes[kSize];
};

template <std::size_t kSize>
using Queue = boost::lockfree::spsc_queue<
    Slot<kSize>, boost::lockfree::capacity<std::max<std::size_t>(kMemory / kSize, 4)>>;

template <std::size_t kSize>
class SlotSender final : public Sender {
public:
    explicit SlotSender(Queue<kSize>& queue) : queue_(queue) {}

    void Send(Source& source, Stamp stamp) override {
        const auto* slot = reinterpret_cast<const Slot<kSize>*>(source.Stamped(stamp));
        while (!queue_.push(*slot)) {
            Relax();
        }
    }

private:
    Queue<kSize>& queue_;
};

template <std::size_t kSize>
class SlotReceiver final : public Receiver {
public:
    explicit SlotReceiver(Queue<kSize>& queue) : queue_(queue) {}

    View Next() override {
        while (queue_.read_available() == 0) {
            Relax();
        }
        return {queue_.front().bytes, kSize};
    }

    void Release() override { (void)queue_.pop(); }

private:
    Queue<kSize>& queue_;
};

template <std::size_t kSize>
class Slots final : public Transport {
public:
    Slots() {
        memory_ = mmap(nullptr, kBytes, PROT_READ | PROT_WRITE,
                       MAP_SHARED | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
        if (memory_ == MAP_FAILED) {
            throw RingError("cannot map a queue", errno);
        }
        for (std::size_t channel = 0; channel < kChannels; ++channel) {
            (void)new (static_cast<unsigned char*>(memory_) + channel * kStride) Queue<kSize>;
        }
    }

    ~Slots() override { (void)munmap(memory_, kBytes); }

    std::unique_ptr<Sender> OpenSender(unsigned channel) override {
        return std::make_unique<SlotSender<kSize>>(Populated(channel));
    }

    std::unique_ptr<Receiver> OpenReceiver(unsigned channel) override {
        return std::make_unique<SlotReceiver<kSize>>(Populated(channel));
    }

private:
    static constexpr std::size_t kChannels = 2;
    static constexpr std::size_t kPage = 4096;
    static constexpr std::size_t kStride = (sizeof(Queue<kSize>) + kPage - 1) / kPage * kPage;
    static constexpr std::size_t kBytes = kChannels * kStride;

    /// A forked process has to find the pages again.
    Queue<kSize>& Populated(unsigned channel) {
        auto* queue = static_cast<unsigned char*>(memory_) + channel * kStride;
        (void)madvise(queue, kStride, MADV_POPULATE_WRITE);
        return *reinterpret_cast<Queue<kSize>*>(queue);
    }

    void* memory_;
};

template <std::size_t... kSizes>
struct SizeList {};

using Sizes = SizeList<64, 1024, 16384, 65536, 1048576, 4194304, 3110400, 12441600>;

template <std::size_t... kSizes>
std::unique_ptr<Transport> MakeFor(std::size_t size, SizeList<kSizes...> /*sizes*/) {
    std::unique_ptr<Transport> made;
    ((size == kSizes ? void(made = std::make_unique<Slots<kSizes>>()) : void()), ...);
    return made;
}

template <std::size_t... kSizes>
bool IsOneOf(std::size_t size, SizeList<kSizes...> /*sizes*/) {
    return ((size == kSizes) || ...);
}

std::optional<std::string> Refusal(const Cell& cell) {
    if (!IsOneOf(cell.size, Sizes{})) {
        return "the size of a slot is fixed when the program is built";
    }
    return std::nullopt;
}

}  // namespace

std::vector<Kind> BoostSlotKinds() {
    return {{"boost-spsc", [](const Cell& cell) { return MakeFor(cell.size, Sizes{}); }, Refusal}};
}

}  // namespace qel::bench
