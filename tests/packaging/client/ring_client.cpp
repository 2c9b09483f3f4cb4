// Sends one packet from node 0 to node 1 through a ring of its own.

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <string>

#include "SharedMemLibFactory.h"

int main() {
    const std::string name = "qev-test-client-" + std::to_string(::getpid());
    const auto library = qel::SharedMemLibFactory::Create();
    const auto writer = library->GetSharedPacketBuffer({name, 4096, 0, false, 0}).buffer;
    const auto reader = library->GetSharedPacketBuffer({name, 4096, 1, true, 0}).buffer;
    ::shm_unlink(("/" + name + ".shm").c_str());
    if (!writer || !reader) {
        return 1;
    }

    std::string text = "across";
    qel::Packet packet;
    packet.data = {reinterpret_cast<unsigned char*>(text.data()), text.size()};
    if (writer->WritePacket(packet) != qel::SMStatusCode::SUCCESS) {
        return 1;
    }
    const auto received = reader->ReadNextPacket();
    if (received.status != qel::SMStatusCode::SUCCESS) {
        return 1;
    }
    std::cout << std::string(received.packet.data.begin(), received.packet.data.end()) << '\n';
    return reader->ReleasePacket(received.packet) == qel::SMStatusCode::SUCCESS ? 0 : 1;
}
