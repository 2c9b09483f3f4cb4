#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>

#include "IdleStrategy.h"
#include "SharedBufferIF.h"

namespace qel {

inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

/// Exit status of a run that `signal` ended.
[[nodiscard]] constexpr int ExitInterrupted(int signal) {
    return 128 + signal;
}

/// The command line asks for something that cannot be: one line on standard error, exit status 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Options by which all verbs describe their ring.
struct RingOptions {
    std::string name;
    std::uint64_t size = 64U << 20U;
    std::uint32_t maxFrames = 0;
    WaitMode wait = WaitMode::Adaptive;
    CLI::Option* maxFramesOption = nullptr;  ///< tells whether the limit was given

    [[nodiscard]] SharedBufferIF::BufferInfo Info(std::uint8_t node, bool sink) const {
        return {name, size, node, sink, maxFrames};
    }
};

inline constexpr std::uint64_t kDefaultPacketSize = 64U << 10U;

/// Adds --size, --max-frames and --wait.
void AddRingOptions(CLI::App& command, RingOptions& options);

/// Adds --packet.
void AddPacketOption(CLI::App& command, std::uint64_t& packetSize);

/// Adds an option for a number of bytes, with units such as KiB allowed.
CLI::Option* AddBytesOption(CLI::App& command, const std::string& name, std::uint64_t& bytes,
                            const std::string& help);

/// @throws UsageError when no ring can be as described, or packets of `packetSize` never fit
void RequireRing(const RingOptions& options);
void RequirePacketFits(std::uint64_t packetSize, std::uint64_t ringSize);

/// Runs `require`, whose std::invalid_argument becomes a UsageError.
void RequireOrUsage(const std::function<void()>& require);

/// Writes to standard output.
/// @throws std::runtime_error
void Print(const std::string& text);

}  // namespace qel
