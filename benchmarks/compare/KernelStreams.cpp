// Pipe and Unix stream: bytes without borders, so the reader takes as many as a message has.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "FileDescriptor.h"
#include "KernelKinds.h"
#include "RingError.h"

namespace qel::bench {
namespace {

constexpr int kPipeBytes = 1 << 20;    // what the kernel lets any user have
constexpr int kSocketBytes = 1 << 20;  // likewise, as far as it does

class FileSender final : public Sender {
public:
    explicit FileSender(int file) : file_(file) {}

    void Send(Source& source, Stamp stamp) override {
        const unsigned char* bytes = source.Stamped(stamp);
        for (std::size_t done = 0; done < source.Size();) {
            const ssize_t written = write(file_, bytes + done, source.Size() - done);
            if (written <= 0) {
                throw RingError("cannot write", errno);
            }
            done += static_cast<std::size_t>(written);
        }
    }

private:
    int file_;
};

class FileReceiver final : public Receiver {
public:
    FileReceiver(int file, std::size_t size) : file_(file), message_(size) {}

    View Next() override {
        for (std::size_t done = 0; done < message_.size();) {
            const ssize_t got = read(file_, message_.data() + done, message_.size() - done);
            if (got <= 0) {
                throw RingError("cannot read", errno);
            }
            done += static_cast<std::size_t>(got);
        }
        return {message_.data(), message_.size()};
    }

    void Release() override {}

private:
    int file_;
    std::vector<unsigned char> message_;
};

struct Ends {
    FileDescriptor reading;
    FileDescriptor writing;
};

Ends MakePipe() {
    std::array<int, 2> files{};
    if (pipe2(files.data(), O_CLOEXEC) == -1) {
        throw RingError("cannot make a pipe", errno);
    }
    (void)fcntl(files[1], F_SETPIPE_SZ, kPipeBytes);
    return {FileDescriptor(files[0]), FileDescriptor(files[1])};
}

Ends MakeSocketPair() {
    std::array<int, 2> files{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, files.data()) == -1) {
        throw RingError("cannot make a socket pair", errno);
    }
    (void)setsockopt(files[1], SOL_SOCKET, SO_SNDBUF, &kSocketBytes, sizeof(kSocketBytes));
    return {FileDescriptor(files[0]), FileDescriptor(files[1])};
}

class Files final : public Transport {
public:
    Files(const Cell& cell, Ends (*make)()) : size_(cell.size), channels_{make(), make()} {}

    std::unique_ptr<Sender> OpenSender(unsigned channel) override {
        return std::make_unique<FileSender>(channels_.at(channel).writing.Get());
    }

    std::unique_ptr<Receiver> OpenReceiver(unsigned channel) override {
        return std::make_unique<FileReceiver>(channels_.at(channel).reading.Get(), size_);
    }

private:
    std::size_t size_;
    std::array<Ends, 2> channels_;
};

Kind KindOf(const char* name, Ends (*make)()) {
    return {name, [make](const Cell& cell) { return std::make_unique<Files>(cell, make); },
            CarriesAll};
}

}  // namespace

std::vector<Kind> StreamKinds() {
    return {KindOf("pipe", MakePipe), KindOf("unix-stream", MakeSocketPair)};
}

}  // namespace qel::bench
