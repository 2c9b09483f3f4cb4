#include "Transports.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <semaphore.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <stdexcept>

#include "FileDescriptor.h"
#include "RingError.h"
#include "RingObject.h"

namespace qel {
namespace {

namespace fs = std::filesystem;

constexpr unsigned kNodes = 5;
constexpr int kPipeBytes = 1 << 20;  // what the kernel lets any user have

std::string CapsOf(const VideoStream& stream) {
    return fmt::format("video/x-raw,format=I420,width={},height={},framerate={}/1", stream.width,
                       stream.height, stream.rate);
}

void RemoveRing(const std::string& name) noexcept {
    try {
        RingObject::Unlink(name);
    } catch (const std::exception&) {
        return;  // the processes have not come as far as making it
    }
}

class Qev final : public Transport {
public:
    Qev(const std::string& name, const Plan& plan, std::string wakeup)
        : Transport(name), size_(plan.ringSize), wakeup_(std::move(wakeup)) {}

    std::string Sending() const override {
        return fmt::format("qevsink name={} size={} wakeup={}", Name(), size_, wakeup_);
    }

    std::string Receiving() const override {
        return fmt::format("qevsrc name={} node=1 sink=true wakeup={}", Name(), wakeup_);
    }

    void Remove(pid_t /*writer*/) noexcept override {
        RemoveRing(Name());
        RemoveRing(Name() + ".ctl");
        for (unsigned node = 0; node < kNodes; ++node) {
            (void)sem_unlink(fmt::format("/{}.node{}", Name(), node).c_str());
        }
        (void)unlink(fmt::format("/tmp/{}.caps_shm.lock", Name()).c_str());
    }

private:
    std::uint64_t size_;
    std::string wakeup_;
};

class Shm final : public Transport {
public:
    Shm(const std::string& name, const Plan& plan)
        : Transport(name),
          size_(plan.ringSize),
          caps_(CapsOf(plan.stream)),
          socket_(fmt::format("/tmp/{}.socket", name)) {}

    std::string Sending() const override {
        return fmt::format(
            "shmsink name={} socket-path={} shm-size={} wait-for-connection=true sync=false "
            "enable-last-sample=false",
            Name(), socket_, size_);
    }

    std::string Receiving() const override {
        return fmt::format("shmsrc name={} socket-path={} is-live=true do-timestamp=true ! {}",
                           Name(), socket_, caps_);
    }

    void Remove(pid_t writer) noexcept override {
        (void)unlink(socket_.c_str());
        // A sink that was killed leaves its memory, named after its process.
        const std::string area = fmt::format("shmpipe.{:5}.", writer);
        std::error_code ignored;
        for (const auto& entry : fs::directory_iterator("/dev/shm", ignored)) {
            if (entry.path().filename().string().rfind(area, 0) == 0) {
                fs::remove(entry.path(), ignored);
            }
        }
    }

private:
    std::uint64_t size_;
    std::string caps_;
    std::string socket_;
};

class Pipe final : public Transport {
public:
    Pipe(const std::string& name, const Plan& plan) : Transport(name), stream_(plan.stream) {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) == -1) {
            throw RingError("cannot make a pipe", errno);
        }
        readEnd_ = FileDescriptor(ends[0]);
        writeEnd_ = FileDescriptor(ends[1]);
        if (fcntl(writeEnd_.Get(), F_SETPIPE_SZ, kPipeBytes) == -1) {
            throw RingError(fmt::format("cannot make a pipe of {} bytes", kPipeBytes), errno);
        }
    }

    std::string Sending() const override {
        return fmt::format("fdsink name={} fd={} sync=false enable-last-sample=false", Name(),
                           writeEnd_.Get());
    }

    std::string Receiving() const override {
        return fmt::format(
            "fdsrc name={} fd={} blocksize={} ! "
            "rawvideoparse format=i420 width={} height={} framerate={}/1",
            Name(), readEnd_.Get(), kBlockBytes, stream_.width, stream_.height, stream_.rate);
    }

    // Out of the pipe, and together into a frame.
    unsigned ReaderCopies() const override { return 2; }

    void BecomeWriter() override { readEnd_ = FileDescriptor(); }
    void BecomeReader() override { writeEnd_ = FileDescriptor(); }

    void Remove(pid_t /*writer*/) noexcept override {}

private:
    static constexpr int kBlockBytes = 1 << 18;  // of all sizes tried, frames come fastest with it

    VideoStream stream_;
    FileDescriptor readEnd_;
    FileDescriptor writeEnd_;
};

}  // namespace

const std::vector<std::string>& TransportKinds() {
    static const std::vector<std::string> kinds{"qev", "qev-spin", "shm", "fd"};
    return kinds;
}

std::unique_ptr<Transport> MakeTransport(const std::string& kind, const std::string& name,
                                         const Plan& plan) {
    if (kind == "qev") {
        return std::make_unique<Qev>(name, plan, "semaphore");
    }
    if (kind == "qev-spin") {
        return std::make_unique<Qev>(name, plan, "spin");
    }
    if (kind == "shm") {
        return std::make_unique<Shm>(name, plan);
    }
    if (kind == "fd") {
        return std::make_unique<Pipe>(name, plan);
    }
    throw std::invalid_argument("there is no transport \"" + kind + "\"");
}

}  // namespace qel
