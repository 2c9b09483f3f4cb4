#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "Plan.h"

namespace qel {

/// What one writer and one reader did.
struct TrialResult {
    std::uint64_t frames;    ///< sent, those of the warm-up included
    std::uint64_t lost;      ///< sent and not received as they were sent
    std::uint64_t wrong;     ///< received otherwise, or in another order
    double framesPerSecond;  ///< received
    double writerCopies;     ///< of a frame's bytes
    double readerCopies;
    double writerCpu;  ///< ms for each frame
    double readerCpu;
    double writerIdleCpu;  ///< percent of one core
    double readerIdleCpu;
    double latency50;  ///< µs
    double latency95;
    double latency99;

    [[nodiscard]] double Copies() const { return writerCopies + readerCopies; }
    [[nodiscard]] double Cpu() const { return writerCpu + readerCpu; }
};

/// Runs a writer and a reader as two processes, and removes what they leave.
/// @param kind  one of `TransportKinds`
/// @param stop  asked while it waits; true gives up
/// @throws std::runtime_error when a process fails or does not end
[[nodiscard]] TrialResult RunTrial(const std::string& kind, const Plan& plan,
                                   const std::function<bool()>& stop);

}  // namespace qel
