#include "Report.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "RingRules.h"

namespace qel {
namespace {

std::string Hex(std::uint64_t checksum) {
    return fmt::format("{:016x}", checksum);
}

std::string VerdictOf(const PipelineReport& report) {
    if (!report.verified) {
        return "NOT verified: the output is not what went in";
    }
    if (report.status == "interrupted") {
        return fmt::format(
            "interrupted; verified: the output is the first {} bytes of the input, byte for byte",
            report.bytes);
    }
    return fmt::format("verified: the output is the input, byte for byte ({} bytes)", report.bytes);
}

}  // namespace

double StageReport::MegabytesPerSecond() const {
    return seconds > 0 ? static_cast<double>(bytes) / 1e6 / seconds : 0;
}

StageReport ReportOf(const StageCounters& counters) {
    return {counters.packets.load(), counters.bytes.load(), counters.fillers.load(),
            counters.checksum.load(), static_cast<double>(counters.nanoseconds.load()) / 1e9};
}

std::string StageLine(const StageReport& stage) {
    return fmt::format("{} packets, {} bytes, xxh3 {}, {:.3f} s, {:.1f} MB/s, {} fillers",
                       stage.packets, stage.bytes, Hex(stage.checksum), stage.seconds,
                       stage.MegabytesPerSecond(), stage.fillers);
}

std::string TextOf(const PipelineReport& report) {
    std::string text =
        fmt::format("{} processes on ring {} of {} bytes, packets of {} bytes\n\n",
                    report.nodes.size(), report.name, report.size, report.packetSize);
    text += fmt::format("{:>4} {:<8} {:>11} {:>14} {:>6} {:>8} {:>8}  {}\n", "node", "role",
                        "packets", "bytes", "wraps", "seconds", "MB/s", "xxh3");
    for (std::size_t node = 0; node < report.nodes.size(); ++node) {
        const StageReport& stage = report.nodes[node];
        // The producer does not see the fillers that the ring writes for it.
        text += fmt::format("{:>4} {:<8} {:>11} {:>14} {:>6} {:>8.3f} {:>8.1f}  {}\n", node,
                            RoleOf(node, report.nodes.size()), stage.packets, stage.bytes,
                            node == 0 ? "-" : std::to_string(stage.fillers), stage.seconds,
                            stage.MegabytesPerSecond(), Hex(stage.checksum));
    }
    text += fmt::format("\n{}\n", VerdictOf(report));
    text += fmt::format("{} /dev/shm{}\n",
                        report.removed ? "removed" : "NOT removed:", RingObjectName(report.name));
    return text;
}

std::string JsonOf(const PipelineReport& report) {
    nlohmann::ordered_json json;
    json["status"] = report.status;
    if (!report.error.empty()) {
        json["error"] = report.error;
    }
    json["name"] = report.name;
    json["size"] = report.size;
    json["packetSize"] = report.packetSize;
    json["bytes"] = report.bytes;
    json["seconds"] = report.seconds;
    json["verified"] = report.verified;
    json["removed"] = report.removed;
    json["nodes"] = nlohmann::ordered_json::array();
    for (std::size_t node = 0; node < report.nodes.size(); ++node) {
        const StageReport& stage = report.nodes[node];
        nlohmann::ordered_json entry;
        entry["node"] = node;
        entry["role"] = RoleOf(node, report.nodes.size());
        entry["packets"] = stage.packets;
        entry["bytes"] = stage.bytes;
        entry["fillers"] = stage.fillers;
        entry["xxh3"] = Hex(stage.checksum);
        entry["seconds"] = stage.seconds;
        entry["megabytesPerSecond"] = stage.MegabytesPerSecond();
        json["nodes"].push_back(entry);
    }
    // Names come from the command line and may hold any bytes.
    return json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace qel
