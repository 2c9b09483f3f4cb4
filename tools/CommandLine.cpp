#include "CommandLine.h"

#include <fmt/format.h>

#include <cstdio>
#include <map>

#include "RingRules.h"

namespace qel {
namespace {

const std::map<std::string, WaitMode> kWaitModes{{"spin", WaitMode::Spin},
                                                 {"yield", WaitMode::Yield},
                                                 {"sleep", WaitMode::Sleep},
                                                 {"adaptive", WaitMode::Adaptive}};

/// A sign would be taken for a very large number, and a leading 0 for an octal one.
std::string RefuseIfNoPlainNumber(const std::string& text) {
    const bool startsWithDigit = !text.empty() && text.front() >= '0' && text.front() <= '9';
    const bool hasLeadingZero =
        text.size() > 1 && text[0] == '0' && text[1] >= '0' && text[1] <= '9';
    return startsWithDigit && !hasLeadingZero ? "" : "Value " + text + " is not a number of bytes";
}

}  // namespace

CLI::Option* AddBytesOption(CLI::App& command, const std::string& name, std::uint64_t& bytes,
                            const std::string& help) {
    constexpr bool kThousandsAreKb = false;
    return command.add_option(name, bytes, help)
        ->transform(CLI::AsSizeValue(kThousandsAreKb))
        ->transform(CLI::Validator(RefuseIfNoPlainNumber, "", ""))  // comes before the other
        ->option_text(fmt::format("BYTES [{}]", bytes));
}

void AddRingOptions(CLI::App& command, RingOptions& options) {
    AddBytesOption(command, "--size", options.size, "Size of the ring; KiB, MiB and so on allowed");
    options.maxFramesOption =
        command
            .add_option("--max-frames", options.maxFrames,
                        "Limit: N + 1 packets in the ring; 0 is none. Set by who makes it")
            ->option_text("N [0]");
    command
        .add_option("--wait", options.wait, "Wait by spin, yield, sleep, or adaptive: each in turn")
        ->transform(CLI::CheckedTransformer(kWaitModes, CLI::ignore_case))
        ->option_text("MODE [adaptive]");
}

void AddPacketOption(CLI::App& command, std::uint64_t& packetSize) {
    AddBytesOption(command, "--packet", packetSize, "Payload of a packet; the last may be shorter");
}

void RequireOrUsage(const std::function<void()>& require) {
    try {
        require();
    } catch (const std::invalid_argument& reason) {
        throw UsageError(reason.what());
    }
}

void RequireRing(const RingOptions& options) {
    RequireOrUsage([&] {
        RequireRingName(options.name);
        RequireRingSize(options.size);
    });
}

void RequirePacketFits(std::uint64_t packetSize, std::uint64_t ringSize) {
    if (packetSize == 0) {
        throw UsageError("the size of a packet must not be 0");
    }
    const auto largest = LargestPayload(ringSize);
    if (!largest || packetSize > *largest) {
        throw UsageError(
            fmt::format("a packet of {} bytes does not fit in a ring of {}: {} more are needed for "
                        "its header and the reserve of critical packets",
                        packetSize, ringSize, kPacketHeaderSize + kCriticalReserve));
    }
}

void Print(const std::string& text) {
    if (std::fputs(text.c_str(), stdout) == EOF || std::fflush(stdout) != 0) {
        throw std::runtime_error("cannot write to standard output");
    }
}

}  // namespace qel
