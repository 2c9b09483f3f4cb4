// Boost.Interprocess message_queue.

#include <algorithm>
#include <boost/interprocess/ipc/message_queue.hpp>

#include "BoostKinds.h"
#include "Clock.h"
#include "NamedChannels.h"

namespace qel::bench {
namespace {

using boost::interprocess::message_queue;

/// As many messages as the shared memory that was asked for holds.
std::size_t MessagesIn(const Cell& cell) {
    return std::clamp<std::size_t>(cell.ring / cell.size, 2, 4096);
}

template <bool kSpins>
class QueueSender final : public Sender {
public:
    QueueSender(const std::string& name, const Cell& cell)
        : queue_(boost::interprocess::open_or_create, name.c_str(), MessagesIn(cell), cell.size) {}

    void Send(Source& source, Stamp stamp) override {
        const unsigned char* bytes = source.Stamped(stamp);
        if constexpr (kSpins) {
            while (!queue_.try_send(bytes, source.Size(), 0)) {
                Relax();
            }
        } else {
            queue_.send(bytes, source.Size(), 0);
        }
    }

private:
    message_queue queue_;
};

template <bool kSpins>
class QueueReceiver final : public Receiver {
public:
    QueueReceiver(const std::string& name, const Cell& cell)
        : queue_(boost::interprocess::open_or_create, name.c_str(), MessagesIn(cell), cell.size),
          message_(cell.size) {}

    View Next() override {
        message_queue::size_type got = 0;
        unsigned priority = 0;
        if constexpr (kSpins) {
            while (!queue_.try_receive(message_.data(), message_.size(), got, priority)) {
                Relax();
            }
        } else {
            queue_.receive(message_.data(), message_.size(), got, priority);
        }
        return {message_.data(), got};
    }

    void Release() override {}

private:
    message_queue queue_;
    std::vector<unsigned char> message_;
};

void RemoveQueue(const std::string& name) {
    (void)message_queue::remove(name.c_str());
}

}  // namespace

std::vector<Kind> BoostQueueKinds() {
    return {NamedKind<QueueSender<false>, QueueReceiver<false>>("boost-mq", RemoveQueue),
            NamedKind<QueueSender<true>, QueueReceiver<true>>("boost-mq-spin", RemoveQueue)};
}

}  // namespace qel::bench
