#include "SharedMappings.h"

#include <algorithm>
#include <fstream>
#include <string>

namespace qel {

bool SharedMappings::Contain(const void* address) {
    const auto wanted = reinterpret_cast<std::uintptr_t>(address);
    if (!Knows(wanted)) {
        Read();
    }
    return Knows(wanted);
}

bool SharedMappings::Knows(std::uintptr_t address) const {
    return std::any_of(ranges_.begin(), ranges_.end(), [address](const Range& range) {
        return range.begin <= address && address < range.end;
    });
}

void SharedMappings::Read() {
    ranges_.clear();
    std::ifstream maps("/proc/self/maps");
    Range range{};
    char dash = 0;
    std::string permissions;
    std::string rest;
    while (maps >> std::hex >> range.begin >> dash >> range.end >> permissions &&
           std::getline(maps, rest)) {
        if (permissions.back() == 's') {
            ranges_.push_back(range);
        }
    }
}

}  // namespace qel
