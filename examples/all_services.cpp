// A camera and a recorder, two processes that use all three services: frames go through a ring,
// what stream they make up stands in a block, and two semaphores wake the side that waits.

#include <semaphore.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <stdexcept>
#include <vector>

#include "NamedSemaphore.h"
#include "SharedMemLibFactory.h"
#include "SharedMemoryBlockReader.h"
#include "SharedMemoryBlockWriter.h"

namespace {

struct Stream {
    std::uint64_t frameSize;  ///< bytes
    std::int64_t frames;
};

constexpr Stream kStream{4000, 1000};
constexpr unsigned kFramesUnderWay = 8;
constexpr std::uint64_t kRingSize = 65536;    // room for the frames under way and a filler
constexpr std::chrono::minutes kPatience(1);  // then the other side must have failed

std::unique_ptr<qel::SharedPacketBufferIF> OpenRing(const std::string& name, std::uint8_t node) {
    auto [ring, status] = qel::SharedMemLibFactory::Create()->GetSharedPacketBuffer(
        {name, kRingSize, node, node == 1, 0});
    if (status != qel::SMStatusCode::SUCCESS) {
        throw std::runtime_error("no ring");
    }
    return std::move(ring);
}

/// The camera, node 0: writes all frames, each filled with the last digits of its number.
void Film(const std::string& name, const qel::NamedSemaphore& sent) {
    const auto ring = OpenRing(name, 0);
    const qel::NamedSemaphore room("/" + name + "-room", kFramesUnderWay);
    for (std::int64_t number = 0; number < kStream.frames; ++number) {
        std::vector<unsigned char> frame(kStream.frameSize, static_cast<unsigned char>(number));
        qel::Packet packet;
        packet.header.pts = number;
        packet.data = {frame.data(), frame.size()};
        room.TimedWait(kPatience);
        if (ring->WritePacket(packet) != qel::SMStatusCode::SUCCESS) {
            throw std::runtime_error("a frame does not fit");
        }
        sent.Post();
    }
}

/// The recorder, node 1: reads the stream that the block describes; true if each frame is right.
bool Record(const std::string& name) {
    Stream stream{};
    qel::SharedMemoryBlockReader block(name);
    block.Lock();
    std::memcpy(&stream, block.GetData(), sizeof stream);
    block.Unlock();
    const auto ring = OpenRing(name, 1);
    const qel::NamedSemaphore room("/" + name + "-room", kFramesUnderWay);
    const qel::NamedSemaphore sent("/" + name + "-sent", 0);
    std::int64_t right = 0;
    for (std::int64_t number = 0; number < stream.frames; ++number) {
        sent.TimedWait(kPatience);
        qel::Packet packet = ring->ReadNextPacket().packet;
        if (packet.header.ignoreData) {  // the filler at the end of the ring
            (void)ring->ReleasePacket(packet);
            packet = ring->ReadNextPacket().packet;
        }
        std::vector<unsigned char> expected(stream.frameSize, static_cast<unsigned char>(number));
        right += packet.header.pts == number && packet.data == qel::ByteSpan(expected) ? 1 : 0;
        (void)ring->ReleasePacket(packet);
        room.Post();
    }
    std::cout << "recorder: " << right << " of " << stream.frames << " frames" << std::endl;
    return right == stream.frames;
}

int Run(const std::string& name) {
    qel::SharedMemoryBlockWriter block(name, sizeof kStream);
    block.LockForWrite();
    std::memcpy(block.GetDataForWrite(), &kStream, sizeof kStream);
    block.UnlockForWrite();

    // A handle takes its posts back at its end: this one stays until the recorder is done.
    const qel::NamedSemaphore sent("/" + name + "-sent", 0);
    const pid_t recorder = ::fork();
    if (recorder == 0) {
        ::execl("/proc/self/exe", "all_services", name.c_str(), nullptr);
        ::_exit(2);
    }
    if (recorder == -1) {
        return 1;
    }
    Film(name, sent);
    int status = 0;
    return ::waitpid(recorder, &status, 0) == recorder && status == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string name = argc > 1 ? argv[1] : "qev-example-" + std::to_string(::getpid());
    int result = 3;
    try {
        result = argc > 1 ? (Record(name) ? 0 : 1) : Run(name);
    } catch (const std::exception& error) {
        std::cerr << error.what() << std::endl;
    }
    if (argc == 1) {  // what the services leave behind would outlive all processes
        ::shm_unlink(("/" + name + ".shm").c_str());
        ::unlink(("/tmp/" + name + "_shm.lock").c_str());
        ::sem_unlink(("/" + name + "-sent").c_str());
        ::sem_unlink(("/" + name + "-room").c_str());
    }
    return result;
}
