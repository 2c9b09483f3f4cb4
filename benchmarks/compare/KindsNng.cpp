// nng over a Unix socket: a pair.

#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include "NamedChannels.h"

namespace qel::bench {
namespace {

constexpr int kQueued = 64;

std::string PathOf(const std::string& name) {
    return "/tmp/" + name + ".nng";
}

void Require(int status, const char* what) {
    if (status != 0) {
        throw std::runtime_error(std::string(what) + ": " + nng_strerror(status));
    }
}

class Socket {
public:
    explicit Socket(const char* buffer) {
        Require(nng_pair0_open(&socket_), "cannot make a socket");
        Require(nng_socket_set_size(socket_, NNG_OPT_RECVMAXSZ, 0), "cannot lift the limit");
        Require(nng_socket_set_int(socket_, buffer, kQueued), "cannot set the buffer");
    }
    ~Socket() { (void)nng_close(socket_); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    [[nodiscard]] nng_socket Get() const noexcept { return socket_; }

private:
    nng_socket socket_{};
};

class PairSender final : public Sender {
public:
    PairSender(const std::string& name, const Cell& /*cell*/) : socket_(NNG_OPT_SENDBUF) {
        Require(nng_listen(socket_.Get(), ("ipc://" + PathOf(name)).c_str(), nullptr, 0),
                "cannot listen");
    }

    void Send(Source& source, Stamp stamp) override {
        nng_msg* message = nullptr;
        Require(nng_msg_alloc(&message, source.Size()), "cannot make a message");
        std::memcpy(nng_msg_body(message), source.Stamped(stamp), source.Size());
        Require(nng_sendmsg(socket_.Get(), message, 0), "cannot send");
    }

private:
    Socket socket_;
};

class PairReceiver final : public Receiver {
public:
    PairReceiver(const std::string& name, const Cell& /*cell*/) : socket_(NNG_OPT_RECVBUF) {
        Require(
            nng_dial(socket_.Get(), ("ipc://" + PathOf(name)).c_str(), nullptr, NNG_FLAG_NONBLOCK),
            "cannot connect");
    }

    View Next() override {
        Require(nng_recvmsg(socket_.Get(), &message_, 0), "cannot receive");
        return {static_cast<const unsigned char*>(nng_msg_body(message_)), nng_msg_len(message_)};
    }

    void Release() override { nng_msg_free(message_); }

private:
    Socket socket_;
    nng_msg* message_ = nullptr;
};

}  // namespace

std::vector<Kind> Kinds() {
    return {NamedKind<PairSender, PairReceiver>(
        "nng", [](const std::string& name) { (void)unlink(PathOf(name).c_str()); })};
}

}  // namespace qel::bench
