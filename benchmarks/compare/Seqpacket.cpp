// Unix socket that keeps the borders of messages.

#include <fmt/format.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>

#include "FileDescriptor.h"
#include "KernelKinds.h"
#include "RingError.h"

namespace qel::bench {
namespace {

constexpr std::size_t kOverhead = 4096;  // of the kernel, in a socket's buffer

struct Ends {
    FileDescriptor reading;
    FileDescriptor writing;
};

/// A buffer that holds two messages, as far as this user may have one.
Ends MakePair(std::size_t size) {
    std::array<int, 2> files{};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, files.data()) == -1) {
        throw RingError("cannot make a socket pair", errno);
    }
    const int bytes = static_cast<int>(std::min<std::size_t>(
        std::max<std::size_t>(2 * size + kOverhead, 1 << 20), std::numeric_limits<int>::max() / 2));
    if (setsockopt(files[1], SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof(bytes)) == -1) {
        (void)setsockopt(files[1], SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
    }
    return {FileDescriptor(files[0]), FileDescriptor(files[1])};
}

class SeqpacketSender final : public Sender {
public:
    explicit SeqpacketSender(int socket) : socket_(socket) {}

    void Send(Source& source, Stamp stamp) override {
        if (send(socket_, source.Stamped(stamp), source.Size(), MSG_NOSIGNAL) == -1) {
            throw RingError("cannot send", errno);
        }
    }

private:
    int socket_;
};

class SeqpacketReceiver final : public Receiver {
public:
    SeqpacketReceiver(int socket, std::size_t size) : socket_(socket), message_(size) {}

    View Next() override {
        const ssize_t got = recv(socket_, message_.data(), message_.size(), 0);
        if (got <= 0) {
            throw RingError("cannot receive", errno);
        }
        return {message_.data(), static_cast<std::size_t>(got)};
    }

    void Release() override {}

private:
    int socket_;
    std::vector<unsigned char> message_;
};

class Seqpacket final : public Transport {
public:
    explicit Seqpacket(const Cell& cell)
        : size_(cell.size), channels_{MakePair(cell.size), MakePair(cell.size)} {}

    std::unique_ptr<Sender> OpenSender(unsigned channel) override {
        return std::make_unique<SeqpacketSender>(channels_.at(channel).writing.Get());
    }

    std::unique_ptr<Receiver> OpenReceiver(unsigned channel) override {
        return std::make_unique<SeqpacketReceiver>(channels_.at(channel).reading.Get(), size_);
    }

private:
    std::size_t size_;
    std::array<Ends, 2> channels_;
};

std::optional<std::string> Refusal(const Cell& cell) {
    const Ends ends = MakePair(cell.size);
    int bytes = 0;
    socklen_t length = sizeof(bytes);
    (void)getsockopt(ends.writing.Get(), SOL_SOCKET, SO_SNDBUF, &bytes, &length);
    if (static_cast<std::size_t>(bytes) < cell.size + kOverhead) {
        return fmt::format("a socket's buffer has {} bytes here (net.core.wmem_max)", bytes);
    }
    const std::vector<unsigned char> message(cell.size);
    if (send(ends.writing.Get(), message.data(), message.size(), MSG_DONTWAIT) == -1) {
        return fmt::format("the kernel takes no message of {} bytes: {}", cell.size,
                           std::strerror(errno));
    }
    return std::nullopt;
}

}  // namespace

std::vector<Kind> SeqpacketKinds() {
    return {{"unix-seqpacket", [](const Cell& cell) { return std::make_unique<Seqpacket>(cell); },
             Refusal}};
}

}  // namespace qel::bench
