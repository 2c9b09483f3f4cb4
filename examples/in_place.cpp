// Packets that are written where they are to lie: nothing is copied, neither into the ring nor out
// of it.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <stdexcept>
#include <string>

#include "InPlaceWriter.h"
#include "SharedMemLibFactory.h"

namespace {

constexpr std::uint64_t kRingSize = 65'536;
constexpr int kPackets = 1000;  // many times what the ring holds

std::unique_ptr<qel::SharedPacketBufferIF> Open(const std::string& name, std::uint8_t node) {
    auto opened = qel::SharedMemLibFactory::Create()->GetSharedPacketBuffer(
        {name, kRingSize, node, node == 1, 0});
    if (opened.status != qel::SMStatusCode::SUCCESS) {
        throw std::runtime_error("the ring cannot be opened");
    }
    return std::move(opened.buffer);
}

/// Stands for a decoder or a camera that fills memory it is given, and does not know beforehand
/// how much of it.
std::size_t FillWith(unsigned char value, const qel::ByteSpan& room) {
    const std::size_t length = room.size() / 2 + value;
    std::fill_n(room.begin(), length, value);
    return length;
}

bool IsFullOf(unsigned char value, const qel::ByteSpan& data) {
    return std::all_of(data.begin(), data.end(), [value](auto byte) { return byte == value; });
}

/// @return packets that came as they were made
int Run(const std::string& name) {
    const auto writer = Open(name, 0);
    const auto reader = Open(name, 1);
    qel::InPlaceWriter inPlace(*writer);
    int intact = 0;
    for (int number = 0; number < kPackets; ++number) {
        const auto value = static_cast<unsigned char>(number);
        const auto room = inPlace.Reserve(4096);
        if (room.status != qel::SMStatusCode::SUCCESS) {
            throw std::runtime_error("there is no room, though the reader keeps up");
        }
        qel::PacketHeader header;
        header.pts = number;
        if (inPlace.Commit(header, FillWith(value, room.data)) != qel::SMStatusCode::SUCCESS) {
            throw std::runtime_error("the packet cannot be handed on");
        }
        for (bool isFiller = true; isFiller;) {
            const auto next = reader->ReadNextPacket();
            isFiller = next.packet.header.ignoreData;
            intact += !isFiller && IsFullOf(value, next.packet.data) ? 1 : 0;
            (void)reader->ReleasePacket(next.packet);
        }
    }
    return intact;
}

}  // namespace

int main() {
    const std::string name = "qev-example-" + std::to_string(getpid());
    int intact = 0;
    try {
        intact = Run(name);
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << '\n';
    }
    (void)shm_unlink(("/" + name + ".shm").c_str());
    std::cout << intact << " of " << kPackets << " packets came as they were made\n";
    return intact == kPackets ? 0 : 1;
}
