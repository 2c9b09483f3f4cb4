#pragma once

#include <sys/mman.h>

#include <cstdint>
#include <fstream>
#include <set>
#include <string>
#include <utility>

#include "AccessTrap.h"
#include "CallFaults.h"

namespace qel::test {

/// Watches the mappings of the block that come into being while this object lives, from each on.
class MappingWatch {
public:
    MappingWatch(const std::string& name, CallFaults& faults, AccessTrap::Record& record,
                 std::uint64_t kill)
        : name_(name), trap_(record), kill_(kill), known_(Mappings()) {
        constexpr int kMost = 4;  // more than a construction makes
        for (int nth = 1; nth <= kMost; ++nth) {
            faults.AfterNth("mmap", nth, [this] { WatchNew(); });
        }
    }
    void Stop() { trap_.Stop(); }

private:
    std::set<std::pair<std::uintptr_t, std::uintptr_t>> Mappings() const {
        std::set<std::pair<std::uintptr_t, std::uintptr_t>> found;
        std::ifstream maps("/proc/self/maps");
        for (std::string line; std::getline(maps, line);) {
            if (line.find(name_) != std::string::npos) {
                const auto dash = line.find('-');
                found.emplace(std::stoul(line.substr(0, dash), nullptr, 16),
                              std::stoul(line.substr(dash + 1), nullptr, 16));
            }
        }
        return found;
    }
    void WatchNew() {
        for (const auto& range : Mappings()) {
            if (!known_.insert(range).second) {
                continue;
            }
            // NOLINTNEXTLINE(performance-no-int-to-ptr)
            trap_.Watch(reinterpret_cast<void*>(range.first), range.second - range.first,
                        PROT_READ | PROT_WRITE);
            if (!started_) {
                started_ = true;
                trap_.Start(kill_);
            }
        }
    }

    std::string name_;
    AccessTrap trap_;
    std::uint64_t kill_;
    std::set<std::pair<std::uintptr_t, std::uintptr_t>> known_;
    bool started_ = false;
};

}  // namespace qel::test
