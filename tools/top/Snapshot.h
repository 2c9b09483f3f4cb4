#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "ProcessSurvey.h"
#include "RingMeter.h"

namespace qel {

/// How long rates are kept for.
inline constexpr double kHistorySeconds = 60;

struct NodeRow {
    NodeFigures figures;
    std::optional<double> latency{};      ///< seconds, over the last few intervals
    std::vector<ObjectUser> processes{};  ///< that claim the node
    std::deque<double> rates{};           ///< bytes per second, one for each interval, newest last
};

struct RingRow {
    std::string name;
    std::string trouble{};  ///< why it cannot be looked at; empty otherwise
    std::string state{};    ///< as `qev ls` tells it
    RingFigures figures{};
    std::vector<NodeRow> nodes{};
    std::vector<ObjectUser> others{};  ///< use the ring and claim no node
};

struct BlockRow {
    std::string name;
    std::string state;
    std::optional<std::uint64_t> size{};
    std::vector<ObjectUser> users{};
};

struct SemaphoreRow {
    std::string name;
    std::string trouble{};
    std::uint32_t value = 0;
    std::uint32_t waiting = 0;
    std::vector<ObjectUser> users{};
};

/// What `qev top` shows at a moment.
struct Snapshot {
    double interval = 0;  ///< seconds that figures are about
    std::vector<RingRow> rings{};
    std::vector<BlockRow> blocks{};
    std::vector<SemaphoreRow> semaphores{};
    unsigned hiddenProcesses = 0;
    bool listsAllProcesses = true;
};

}  // namespace qel
