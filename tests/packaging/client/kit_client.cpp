// As ring_client.cpp, with the pipeline kit's waiting reader and writer.

#include <unistd.h>

#include <iostream>
#include <string>

#include "OpenRing.h"
#include "PacketReader.h"
#include "PacketWriter.h"
#include "RingObject.h"

int main() {
    constexpr std::uint64_t kSize = 4096;
    const std::string name = "qev-test-kit-client-" + std::to_string(::getpid());
    const qel::RingObject object(name, kSize);
    const auto first = qel::OpenRing({name, kSize, 0, false, 0});
    const auto last = qel::OpenRing({name, kSize, 1, true, 0});

    std::string text = "across";
    qel::Packet packet;
    packet.data = {reinterpret_cast<unsigned char*>(text.data()), text.size()};
    if (qel::PacketWriter(*first, kSize).Write(packet) != qel::WriteOutcome::Written) {
        return 1;
    }
    qel::PacketReader reader(*last);
    const auto received = reader.Next();
    if (received.outcome != qel::ReadOutcome::Packet) {
        return 1;
    }
    std::cout << std::string(received.packet.data.begin(), received.packet.data.end()) << '\n';
    return reader.Release(received.ticket) == qel::SMStatusCode::SUCCESS ? 0 : 1;
}
