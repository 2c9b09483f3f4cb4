#pragma once

#include <cstdint>
#include <map>
#include <ostream>
#include <string>

namespace qel::test::reference {

/// How often each situation was met, by name: what random operations have reached.
class EventCounts {
public:
    void Note(const std::string& event) { ++counts_[event]; }
    [[nodiscard]] std::uint64_t Of(const std::string& event) const {
        const auto found = counts_.find(event);
        return found == counts_.end() ? 0 : found->second;
    }
    friend std::ostream& operator<<(std::ostream& stream, const EventCounts& events) {
        for (const auto& [event, count] : events.counts_) {
            stream << "  " << event << ": " << count << '\n';
        }
        return stream;
    }

private:
    std::map<std::string, std::uint64_t> counts_;
};

}  // namespace qel::test::reference
