#include "SemaphoreMetrics.h"

#include <algorithm>
#include <stdexcept>

#include "LabelText.h"
#include "SemaphoreView.h"

namespace qel {
namespace {

constexpr MetricKind kValue{"qev_semaphore_value", "Units of the semaphore that are free."};
constexpr MetricKind kWaiting{"qev_semaphore_waiting_threads",
                              "Threads that wait for a unit of the semaphore."};
constexpr MetricKind kUsers{"qev_semaphore_users", "Processes that have the semaphore open."};

}  // namespace

void AddSemaphore(const std::string& name, const ProcessSurvey& processes,
                  MetricFamilies& families) {
    const auto semaphore = LookAtSemaphore(name);
    if (!semaphore) {
        return;
    }
    if (!semaphore->isWhole) {
        throw std::runtime_error("semaphore " + name + ": its file has not a semaphore's length");
    }
    const MetricLabels labels{{"semaphore", LabelText(name)}};
    const struct stat& status = semaphore->status;
    families.Add(kValue, labels, semaphore->value);
    families.Add(kWaiting, labels, semaphore->waiting);
    const auto& users = processes.UsersOf(status.st_dev, status.st_ino);
    families.Add(kUsers, labels,
                 ValueOf(std::count_if(users.begin(), users.end(),
                                       [](const ObjectUser& user) { return user.maps; })));
}

}  // namespace qel
