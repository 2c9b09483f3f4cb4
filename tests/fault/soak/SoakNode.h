#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "SharedPacketBufferIF.h"
#include "SoakBlock.h"
#include "SoakBoard.h"
#include "SoakPackets.h"
#include "SoakPlan.h"
#include "SoakSemaphores.h"

namespace qel::test {

/// The names of what a soak uses.
struct SoakNames {
    std::string ring;
    std::string block;
    std::string units;
    std::string gate;
};

/// The soak's ring as node `node` opens it.
SharedBufferIF::BufferInfo SoakRing(const std::string& name, unsigned node);

/// One process of a soak: a node of the ring's chain that turns to the block and the semaphores
/// every few packets and opens everything anew every few thousand.
class SoakNode {
public:
    SoakNode(const SoakNames& names, const SoakPackets& packets, const SoakPlan& plan,
             unsigned node, SoakBoard& board);

    /// Runs to the end of the plan and until all other processes are there.
    /// @throws std::runtime_error  at the first fault, of whatever it finds
    void Run();

private:
    bool WriteNext();
    bool ReadNext();
    void LetGo();
    void Check(const Packet& packet, std::uint64_t number) const;
    void OpenRing();
    void StartRound();
    void WaitForAll();

    SoakNames names_;
    const SoakPackets& packets_;
    SoakClock clock_;
    unsigned node_;
    SoakBoard& board_;
    SoakFigures& figures_;
    SoakBlock block_;
    SoakSemaphores semaphores_;
    ResourceWatch watch_;
    std::unique_ptr<SharedPacketBufferIF> ring_;
    std::vector<Packet> held_;
    std::uint64_t next_ = 0;  ///< packet
    bool ended_ = false;
};

}  // namespace qel::test
