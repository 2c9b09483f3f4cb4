// POSIX message queue, with the limits of this machine.

#include <fcntl.h>
#include <fmt/format.h>
#include <mqueue.h>

#include <array>
#include <cerrno>
#include <fstream>

#include "KernelKinds.h"
#include "RingError.h"

namespace qel::bench {
namespace {

long LimitOf(const char* what) {
    std::ifstream file(fmt::format("/proc/sys/fs/mqueue/{}", what));
    long limit = 0;
    file >> limit;
    return limit;
}

class Queue {
public:
    Queue(const std::string& name, std::size_t size) {
        mq_attr attributes{};
        attributes.mq_maxmsg = LimitOf("msg_max");
        attributes.mq_msgsize = static_cast<long>(size);
        queue_ = mq_open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600, &attributes);
        if (queue_ == -1) {
            throw RingError("cannot open a message queue", errno);
        }
    }
    ~Queue() { (void)mq_close(queue_); }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    [[nodiscard]] mqd_t Get() const noexcept { return queue_; }

private:
    mqd_t queue_;
};

class QueueSender final : public Sender {
public:
    QueueSender(const std::string& name, std::size_t size) : queue_(name, size) {}

    void Send(Source& source, Stamp stamp) override {
        const auto* bytes = reinterpret_cast<const char*>(source.Stamped(stamp));
        if (mq_send(queue_.Get(), bytes, source.Size(), 0) == -1) {
            throw RingError("cannot send", errno);
        }
    }

private:
    Queue queue_;
};

class QueueReceiver final : public Receiver {
public:
    QueueReceiver(const std::string& name, std::size_t size) : queue_(name, size), message_(size) {}

    View Next() override {
        auto* bytes = reinterpret_cast<char*>(message_.data());
        const ssize_t got = mq_receive(queue_.Get(), bytes, message_.size(), nullptr);
        if (got == -1) {
            throw RingError("cannot receive", errno);
        }
        return {message_.data(), static_cast<std::size_t>(got)};
    }

    void Release() override {}

private:
    Queue queue_;
    std::vector<unsigned char> message_;
};

class PosixQueue final : public Transport {
public:
    explicit PosixQueue(const Cell& cell)
        : size_(cell.size), names_{"/" + UniqueName(0), "/" + UniqueName(1)} {}

    ~PosixQueue() override {
        for (const std::string& name : names_) {
            (void)mq_unlink(name.c_str());
        }
    }

    std::unique_ptr<Sender> OpenSender(unsigned channel) override {
        return std::make_unique<QueueSender>(names_.at(channel), size_);
    }

    std::unique_ptr<Receiver> OpenReceiver(unsigned channel) override {
        return std::make_unique<QueueReceiver>(names_.at(channel), size_);
    }

private:
    std::size_t size_;
    std::array<std::string, 2> names_;
};

std::optional<std::string> Refusal(const Cell& cell) {
    const long largest = LimitOf("msgsize_max");
    if (static_cast<long>(cell.size) > largest) {
        return fmt::format("a message has {} bytes at most here (fs.mqueue.msgsize_max)", largest);
    }
    return std::nullopt;
}

}  // namespace

std::vector<Kind> PosixQueueKinds() {
    return {{"posix-mqueue", [](const Cell& cell) { return std::make_unique<PosixQueue>(cell); },
             Refusal}};
}

}  // namespace qel::bench
