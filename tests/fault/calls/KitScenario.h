#pragma once

#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include "Explorer.h"
#include "OpenRing.h"
#include "Scenario.h"

namespace qel::test {

/// A ring opened with the pipeline kit.
class KitScenario : public Scenario {
public:
    static constexpr std::uint64_t kSize = 4096;

    using Scenario::Scenario;

    /// What there is of the ring's object.
    std::string State() override {
        struct stat status {};
        return ::stat(names_.ring.Path().c_str(), &status) != 0
                   ? "no object"
                   : "object of " + std::to_string(status.st_size) + " bytes";
    }
    std::string Left() override { return State(); }

protected:
    [[nodiscard]] SharedBufferIF::BufferInfo Info(std::uint8_t node) const {
        return {names_.ring.Name(), kSize, node, node == 1, 0};
    }
    [[nodiscard]] std::unique_ptr<SharedPacketBufferIF> Open(std::uint8_t node) const {
        return OpenRing(Info(node));
    }
    static void WriteOne(SharedPacketBufferIF& ring) {
        std::vector<unsigned char> content{1, 2, 3};
        Packet packet;
        packet.data = content;
        EXPECT_EQ(ring.WritePacket(packet), SMStatusCode::SUCCESS);
    }
    /// Packets that the sink finds, which are released.
    [[nodiscard]] int Drain() const {
        const auto sink = Open(1);
        int packets = 0;
        for (auto next = sink->ReadNextPacket(); next.status == SMStatusCode::SUCCESS;
             next = sink->ReadNextPacket()) {
            EXPECT_EQ(sink->ReleasePacket(next.packet), SMStatusCode::SUCCESS);
            ++packets;
        }
        return packets;
    }
};

inline constexpr const char* kFullObject = "object of 4248 bytes";

/// A failure as the kit reports it.
inline Outcome RingFails(const std::string& what) {
    return Throws("ring {RING}: cannot " + what + " /{RING}.shm: {errno}({strerror})",
                  "qel::RingError");
}

/// The state of the object, before its user ends and afterwards.
inline Outcome Object(const Outcome& outcome, const std::string& state) {
    return outcome.State(state).Left(state);
}

}  // namespace qel::test
