// Three processes on one ring: a producer, a stage that looks at every packet where it lies, and
// the sink, which gives the space back to the producer.

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <exception>
#include <iostream>
#include <numeric>
#include <string>

#include "EndOfStream.h"
#include "NodeChain.h"
#include "OpenRing.h"
#include "PacketReader.h"
#include "PacketWriter.h"
#include "RingObject.h"

namespace {

constexpr std::uint64_t kRingSize = 65'536;
constexpr std::int64_t kPackets = 10'000;  // many times what the ring holds

int Produce(const std::string& name) {
    const auto ring = qel::OpenRing({name, kRingSize, 0, false, 0});
    qel::PacketWriter writer(*ring, kRingSize);
    for (std::int64_t number = 0; number < kPackets; ++number) {
        std::string text = "frame " + std::to_string(number);
        qel::Packet packet;
        packet.header.pts = number;
        packet.header.key = number % 25 == 0;
        packet.data = {reinterpret_cast<unsigned char*>(text.data()), text.size()};
        if (writer.Write(packet) != qel::WriteOutcome::Written) {
            return 1;
        }
    }
    return writer.WriteCritical(qel::MakeEndOfStream()) == qel::WriteOutcome::Written ? 0 : 1;
}

/// Reads packets until the end of the stream and shows each to `visit` before handing it on.
template <typename Visit>
bool ForEachPacket(qel::SharedPacketBufferIF& ring, const Visit& visit) {
    qel::PacketReader reader(ring);
    while (true) {
        const auto received = reader.Next();
        if (received.outcome == qel::ReadOutcome::Packet) {
            visit(received.packet);
        } else if (received.outcome != qel::ReadOutcome::EndOfStream) {
            return false;
        }
        if (reader.Release(received.ticket) != qel::SMStatusCode::SUCCESS) {
            return false;
        }
        if (received.outcome == qel::ReadOutcome::EndOfStream) {
            return true;
        }
    }
}

int Inspect(const std::string& name) {
    const auto ring = qel::OpenRing({name, kRingSize, 1, false, 0});
    std::uint64_t sum = 0;
    const bool ended = ForEachPacket(*ring, [&sum](const qel::Packet& packet) {
        sum = std::accumulate(packet.data.begin(), packet.data.end(), sum);
    });
    std::cout << "node 1: the bytes add up to " << sum << std::endl;
    return ended ? 0 : 1;
}

int Collect(const std::string& name) {
    const auto ring = qel::OpenRing({name, kRingSize, 2, true, 0});
    std::int64_t expected = 0;
    bool inOrder = true;
    const bool ended = ForEachPacket(*ring, [&](const qel::Packet& packet) {
        inOrder = inOrder && packet.header.pts == expected;
        ++expected;
    });
    std::cout << "node 2: " << expected << " packets, " << (inOrder ? "in order" : "out of order")
              << std::endl;
    return ended && inOrder && expected == kPackets ? 0 : 1;
}

bool RunChain() {
    const std::string name = "packet-ring-" + std::to_string(::getpid());
    const qel::RingObject object(name, kRingSize);  // removed at the end, whatever happens
    qel::NodeChain chain({[&] { return Produce(name); }, [&] { return Inspect(name); },
                          [&] { return Collect(name); }});

    bool good = true;
    while (chain.Running() > 0) {
        const auto ended = chain.WaitForExit(std::chrono::seconds(1));
        if (ended && !ended->Succeeded()) {
            std::cerr << "node " << ended->node << " " << ended->Text() << '\n';
            good = false;
            chain.Kill(SIGKILL);  // the others would wait for it for ever
        }
    }
    return good;
}

}  // namespace

int main() {
    try {
        return RunChain() ? 0 : 1;
    } catch (const std::exception& reason) {
        std::cerr << reason.what() << '\n';
        return 1;
    }
}
