#include "RingUsers.h"

#include <algorithm>
#include <iterator>

#include "ObjectCheck.h"
#include "Writers.h"

namespace qel {

RingUsers RingUsers::SeenOf(const RingFile& ring, const ProcessSurvey& processes) {
    RingUsers found;
    found.users = processes.WritersOf(ring.Status().st_dev, ring.Status().st_ino);
    found.hidden = processes.HiddenProcesses();
    found.seesAll = processes.ListsAll();
    return found;
}

RingUsers RingUsers::Of(const RingFile& ring, const ProcessSurvey& processes) {
    RingUsers found = SeenOf(ring, processes);
    if (found.users.empty()) {
        switch (WritersOf(RingPath(ring.Name()))) {
            case Writers::None:
                found.hidden = 0;
                found.seesAll = true;
                break;
            case Writers::Some:
                found.isAnybody = true;
                break;
            case Writers::Unknown:
                break;
        }
    }
    return found;
}

std::vector<ObjectUser> RingUsers::Candidates(unsigned node) const {
    std::vector<ObjectUser> found;
    std::copy_if(
        users.begin(), users.end(), std::back_inserter(found), [node](const ObjectUser& user) {
            const auto nodes = user.Nodes();
            return nodes.empty() || std::find(nodes.begin(), nodes.end(), node) != nodes.end();
        });
    return found;
}

NodesThere RingUsers::There() const {
    NodesThere there{};
    for (unsigned node = 0; node < kMaxNodes; ++node) {
        there.at(node) = isAnybody || !Candidates(node).empty();
    }
    return there;
}

bool RingUsers::IsClaimed(unsigned node) const {
    return std::any_of(users.begin(), users.end(), [node](const ObjectUser& user) {
        const auto nodes = user.Nodes();
        return std::find(nodes.begin(), nodes.end(), node) != nodes.end();
    });
}

std::optional<unsigned> RingUsers::LastClaimed() const {
    std::optional<unsigned> last;
    for (unsigned node = 0; node < kMaxNodes; ++node) {
        last = IsClaimed(node) ? node : last;
    }
    return last;
}

std::string RingUsers::HiddenText() const {
    std::string text = qel::HiddenText(hidden, seesAll);
    const std::string user = "a process that cannot be seen uses it";
    if (!isAnybody) {
        return text;
    }
    return text.empty() ? user + ", perhaps in a container" : user + ": " + text;
}

}  // namespace qel
