// ZeroMQ over a Unix socket: PUSH and PULL.

#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <stdexcept>

#include "NamedChannels.h"

namespace qel::bench {
namespace {

std::string PathOf(const std::string& name) {
    return "/tmp/" + name + ".zmq";
}

void Require(bool holds, const char* what) {
    if (!holds) {
        throw std::runtime_error(std::string(what) + ": " + zmq_strerror(zmq_errno()));
    }
}

class Socket {
public:
    Socket(int type, int limit, const Cell& cell) : context_(zmq_ctx_new()) {
        Require(context_ != nullptr, "cannot make a context");
        socket_ = zmq_socket(context_, type);
        Require(socket_ != nullptr, "cannot make a socket");
        // The queues hold no more than the shared memory of the others.
        const int messages =
            static_cast<int>(std::clamp<std::size_t>(cell.ring / cell.size, 2, 1000));
        Require(zmq_setsockopt(socket_, limit, &messages, sizeof(messages)) == 0,
                "cannot set a limit");
    }
    ~Socket() {
        const int linger = 0;
        (void)zmq_setsockopt(socket_, ZMQ_LINGER, &linger, sizeof(linger));
        (void)zmq_close(socket_);
        (void)zmq_ctx_term(context_);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    [[nodiscard]] void* Get() const noexcept { return socket_; }

private:
    void* context_;
    void* socket_ = nullptr;
};

class PushSender final : public Sender {
public:
    PushSender(const std::string& name, const Cell& cell) : socket_(ZMQ_PUSH, ZMQ_SNDHWM, cell) {
        Require(zmq_bind(socket_.Get(), ("ipc://" + PathOf(name)).c_str()) == 0, "cannot bind");
    }

    void Send(Source& source, Stamp stamp) override {
        Require(zmq_send(socket_.Get(), source.Stamped(stamp), source.Size(), 0) != -1,
                "cannot send");
    }

private:
    Socket socket_;
};

class PullReceiver final : public Receiver {
public:
    PullReceiver(const std::string& name, const Cell& cell) : socket_(ZMQ_PULL, ZMQ_RCVHWM, cell) {
        (void)zmq_msg_init(&message_);
        Require(zmq_connect(socket_.Get(), ("ipc://" + PathOf(name)).c_str()) == 0,
                "cannot connect");
    }
    ~PullReceiver() override { (void)zmq_msg_close(&message_); }

    View Next() override {
        Require(zmq_msg_recv(&message_, socket_.Get(), 0) != -1, "cannot receive");
        return {static_cast<const unsigned char*>(zmq_msg_data(&message_)),
                zmq_msg_size(&message_)};
    }

    void Release() override {}  // the next takes its place

private:
    Socket socket_;
    zmq_msg_t message_{};
};

}  // namespace

std::vector<Kind> Kinds() {
    return {NamedKind<PushSender, PullReceiver>(
        "zeromq", [](const std::string& name) { (void)unlink(PathOf(name).c_str()); })};
}

}  // namespace qel::bench
