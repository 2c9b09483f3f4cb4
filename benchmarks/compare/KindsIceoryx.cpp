// iceoryx: the middleware lends the writer its memory and the reader a view of it. A daemon,
// iox-roudi, has to run; its memory pools have to hold chunks of the message's size.

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iceoryx_hoofs/log/logmanager.hpp>
#include <iceoryx_posh/popo/untyped_publisher.hpp>
#include <iceoryx_posh/popo/untyped_subscriber.hpp>
#include <iceoryx_posh/popo/wait_set.hpp>
#include <iceoryx_posh/runtime/posh_runtime.hpp>
#include <stdexcept>
#include <string>

#include "Clock.h"
#include "NamedChannels.h"

namespace qel::bench {
namespace {

/// Within what the pools of the script hold.
std::uint64_t QueueOf(const Cell& cell) {
    return std::clamp<std::uint64_t>(cell.ring / cell.size, 2, 8);
}

iox::capro::IdString_t Id(const std::string& text) {
    return {iox::cxx::TruncateToCapacity, text};
}

void JoinRuntime(const std::string& name) {
    static bool joined = false;  // once in a process
    if (!joined) {
        joined = true;
        iox::log::LogManager::GetLogManager().SetDefaultLogLevel(iox::log::LogLevel::kError);
        (void)iox::runtime::PoshRuntime::initRuntime({iox::cxx::TruncateToCapacity, name});
    }
}

iox::popo::PublisherOptions WaitingPublisher() {
    iox::popo::PublisherOptions options;
    options.subscriberTooSlowPolicy = iox::popo::ConsumerTooSlowPolicy::WAIT_FOR_CONSUMER;
    return options;
}

iox::popo::SubscriberOptions WaitingSubscriber(const Cell& cell) {
    iox::popo::SubscriberOptions options;
    options.queueCapacity = QueueOf(cell);
    options.queueFullPolicy = iox::popo::QueueFullPolicy::BLOCK_PRODUCER;
    return options;
}

enum class Filling { Copy, InPlace };

template <Filling kFilling>
class IceoryxSender final : public Sender {
public:
    IceoryxSender(const std::string& name, const Cell& cell)
        : all_(cell.readAll),
          publisher_(
              (JoinRuntime(name + "-s"), iox::capro::ServiceDescription{"qev", "bench", Id(name)}),
              WaitingPublisher()) {}

    void AwaitPeer() override {
        while (!publisher_.hasSubscribers()) {
            Relax();
        }
    }

    void Send(Source& source, Stamp stamp) override {
        publisher_.loan(static_cast<std::uint32_t>(source.Size()))
            .and_then([&](void* chunk) {
                Fill(static_cast<unsigned char*>(chunk), source, stamp);
                publisher_.publish(chunk);
            })
            .or_else([](auto&) { throw std::runtime_error("iceoryx lends no memory"); });
    }

private:
    void Fill(unsigned char* memory, Source& source, Stamp stamp) const {
        if constexpr (kFilling == Filling::Copy) {
            std::memcpy(memory, source.Stamped(stamp), source.Size());
        } else {
            source.MakeIn(memory, stamp, all_);
        }
    }

    bool all_;
    iox::popo::UntypedPublisher publisher_;
};

enum class Waiting { Spin, Woken };

template <Waiting kWaiting>
class IceoryxReceiver final : public Receiver {
public:
    IceoryxReceiver(const std::string& name, const Cell& cell)
        : subscriber_(
              (JoinRuntime(name + "-r"), iox::capro::ServiceDescription{"qev", "bench", Id(name)}),
              WaitingSubscriber(cell)) {
        if constexpr (kWaiting == Waiting::Woken) {
            waiter_.attachState(subscriber_, iox::popo::SubscriberState::HAS_DATA)
                .or_else([](auto) { throw std::runtime_error("iceoryx cannot wait"); });
        }
    }

    void AwaitPeer() override {
        while (subscriber_.getSubscriptionState() != iox::SubscribeState::SUBSCRIBED) {
            Relax();
        }
    }

    View Next() override {
        payload_ = nullptr;
        while (true) {
            subscriber_.take().and_then([&](const void* payload) { payload_ = payload; });
            if (payload_ != nullptr) {
                const auto* header = iox::mepoo::ChunkHeader::fromUserPayload(payload_);
                return {static_cast<const unsigned char*>(payload_), header->userPayloadSize()};
            }
            Wait();
        }
    }

    void Release() override { subscriber_.release(payload_); }

private:
    void Wait() {
        if constexpr (kWaiting == Waiting::Woken) {
            (void)waiter_.wait();
        } else {
            Relax();
        }
    }

    iox::popo::UntypedSubscriber subscriber_;
    iox::popo::WaitSet<> waiter_;
    const void* payload_ = nullptr;
};

/// What a runtime leaves when its process does not run its exit handlers.
void RemoveSockets(const std::string& name) {
    for (const char* end : {"-s", "-r", "-s.lock", "-r.lock"}) {
        (void)unlink(("/tmp/" + name + end).c_str());
    }
}

}  // namespace

std::vector<Kind> Kinds() {
    return {NamedKind<IceoryxSender<Filling::Copy>, IceoryxReceiver<Waiting::Spin>>("iceoryx-copy",
                                                                                    RemoveSockets),
            NamedKind<IceoryxSender<Filling::InPlace>, IceoryxReceiver<Waiting::Spin>>(
                "iceoryx-loan", RemoveSockets),
            NamedKind<IceoryxSender<Filling::Copy>, IceoryxReceiver<Waiting::Woken>>(
                "iceoryx-woken", RemoveSockets)};
}

}  // namespace qel::bench
