#include "Figures.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "NodeRole.h"
#include "ObjectLines.h"
#include "RingLines.h"
#include "UsersJson.h"

namespace qel {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kTextWidth = 100;

/// "exact", "estimate", or "at least" where the true figure is higher.
const char* WorthOf(const RingFigures& figures, bool isExact) {
    return figures.isTooFast ? "at least" : isExact ? "exact" : "estimate";
}

Json JsonOfNode(const NodeRow& row, std::size_t node, std::size_t nodes) {
    const NodeFigures& told = row.figures;
    return {{"node", node},
            {"role", RoleOf(node, nodes)},
            {"processes", JsonOfUsers(row.processes)},
            {"bytesPerSecond", told.bytesPerSecond},
            {"packetsPerSecond", told.packetsPerSecond},
            {"latency", row.latency ? Json(*row.latency) : Json()},
            {"meanWaiting", told.waiting},
            {"meanHeld", told.held},
            {"waiting", told.waitingNow},
            {"held", told.heldNow},
            {"lag", told.lagNow},
            {"bytes", told.bytes},
            {"packets", told.packets}};
}

Json JsonOfRing(const RingRow& ring) {
    const RingFigures& told = ring.figures;
    Json json{{"name", ring.name}};
    if (!ring.trouble.empty()) {
        json["trouble"] = ring.trouble;
        return json;
    }
    json["state"] = ring.state;
    json["size"] = told.size;
    json["initialised"] = told.isInitialised;
    json["sound"] = told.isSound;
    json["others"] = JsonOfUsers(ring.others);
    if (!told.isSound) {
        return json;
    }
    json["seconds"] = told.seconds;
    json["moves"] = told.moves;
    json["bytesWorth"] = WorthOf(told, told.bytesAreExact);
    json["packetsWorth"] = WorthOf(told, told.packetsAreExact);
    json["byteTotalsExact"] = told.byteTotalsAreExact;
    json["packetTotalsExact"] = told.packetTotalsAreExact;
    json["fill"] = told.fill;
    json["full"] = told.full ? Json(*told.full) : Json();
    json["free"] = told.freeNow;
    json["packets"] = told.packets;
    json["packetLimit"] = told.packetLimit;
    json["largestRecord"] = told.largestRecord;
    json["nodes"] = Json::array();
    for (std::size_t node = 0; node < ring.nodes.size(); ++node) {
        json["nodes"].push_back(JsonOfNode(ring.nodes[node], node, ring.nodes.size()));
    }
    return json;
}

Json JsonOfBlock(const BlockRow& block) {
    return {{"name", block.name},
            {"state", block.state},
            {"size", block.size ? Json(*block.size) : Json()},
            {"users", JsonOfUsers(block.users)}};
}

Json JsonOfSemaphore(const SemaphoreRow& semaphore) {
    Json json{{"name", semaphore.name}};
    if (semaphore.trouble.empty()) {
        json["value"] = semaphore.value;
        json["waiting"] = semaphore.waiting;
    } else {
        json["trouble"] = semaphore.trouble;
    }
    json["users"] = JsonOfUsers(semaphore.users);
    return json;
}

std::string WithoutSpaceAtItsEnd(std::string line) {
    line.erase(line.find_last_not_of(' ') + 1);
    return line + "\n";
}

}  // namespace

std::string TextOf(const Snapshot& snapshot) {
    const RingLayout layout{kTextWidth, Charset::Ascii, 1};
    Lines lines;
    const auto append = [&lines](const Lines& more) {
        lines.insert(lines.end(), more.begin(), more.end());
    };
    if (!snapshot.rings.empty()) {
        lines.push_back(NodeTitles(layout));
    }
    for (const RingRow& ring : snapshot.rings) {
        append(RingLines(ring, false, layout));
    }
    const auto all = [](const std::string&) { return true; };
    append(BlockLines(snapshot.blocks, all, layout));
    append(SemaphoreLines(snapshot.semaphores, all, layout));
    if (snapshot.hiddenProcesses != 0) {
        lines.push_back({{fmt::format("processes hidden: {}", snapshot.hiddenProcesses)}});
    }
    if (!snapshot.listsAllProcesses) {
        lines.push_back({{"not all processes are listed"}});
    }
    std::string text;
    for (const Line& line : lines) {
        text += WithoutSpaceAtItsEnd(TextOf(line));
    }
    return text.empty() ? "nothing is there\n" : text;
}

std::string JsonOf(const Snapshot& snapshot) {
    Json json{{"interval", snapshot.interval}, {"rings", Json::array()}};
    for (const RingRow& ring : snapshot.rings) {
        json["rings"].push_back(JsonOfRing(ring));
    }
    json["blocks"] = Json::array();
    for (const BlockRow& block : snapshot.blocks) {
        json["blocks"].push_back(JsonOfBlock(block));
    }
    json["semaphores"] = Json::array();
    for (const SemaphoreRow& semaphore : snapshot.semaphores) {
        json["semaphores"].push_back(JsonOfSemaphore(semaphore));
    }
    json["hiddenProcesses"] = snapshot.hiddenProcesses;
    json["listsAllProcesses"] = snapshot.listsAllProcesses;
    return TextOfJson(json);
}

}  // namespace qel
