#include "ObjectCollector.h"

#include <chrono>
#include <stdexcept>
#include <utility>

#include "BlockMetrics.h"
#include "MachineMetrics.h"
#include "ObjectNames.h"
#include "RingMetrics.h"
#include "SemaphoreMetrics.h"

namespace qel {
namespace {

constexpr MetricKind kUnreadable{"qev_exporter_unreadable_objects",
                                 "Objects that could not be looked at this time, by kind."};
constexpr MetricKind kLeftOut{
    "qev_exporter_left_out_objects",
    "Objects that are not shown because there are more than --max-objects, by kind."};
constexpr MetricKind kDuration{"qev_exporter_scrape_duration_seconds",
                               "How long this look at all objects took."};
constexpr MetricKind kFailures{"qev_exporter_failures_total",
                               "Objects, folders and process lists that could not be looked at.",
                               prometheus::MetricType::Counter};

}  // namespace

/// One look at everything.
struct ObjectCollector::Look {
    const ObjectChoice& choice;
    MetricFamilies families{};
    std::uint64_t failures = 0;
    std::set<std::string> reasons{};

    /// @return false if it fails
    template <typename Action>
    bool Try(const Action& action) {
        try {
            action();
            return true;
        } catch (const std::runtime_error& reason) {
            ++failures;
            reasons.insert(reason.what());
            return false;
        }
    }

    template <typename Names, typename Add>
    void TakeAll(const char* kind, const Names& names, const Add& add) {
        ChosenNames chosen;
        (void)Try([&] { chosen = ChooseFrom(names(), choice); });
        double unreadable = 0;
        for (const std::string& name : chosen.names) {
            unreadable += Try([&] { add(name); }) ? 0 : 1;
        }
        families.Add(kUnreadable, {{"kind", kind}}, unreadable);
        families.Add(kLeftOut, {{"kind", kind}}, ValueOf(chosen.leftOut));
    }
};

ObjectCollector::ObjectCollector(ObjectChoice choice, std::shared_ptr<const RingTotals> totals,
                                 Complaint complain)
    : choice_(std::move(choice)), totals_(std::move(totals)), complain_(std::move(complain)) {}

std::vector<prometheus::MetricFamily> ObjectCollector::Collect() const {
    const std::lock_guard lock(mutex_);
    const auto begin = std::chrono::steady_clock::now();
    Look look{choice_};
    ProcessSurvey processes;
    if (look.Try([&] { processes = ProcessSurvey::Take(); })) {
        (void)look.Try([&] { AddMachine(processes, look.families); });
        look.TakeAll("ring", RingNames, [&](const std::string& name) {
            AddRing(name, processes, *totals_, look.families);
        });
        look.TakeAll("block", BlockNames,
                     [&](const std::string& name) { AddBlock(name, processes, look.families); });
        look.TakeAll("semaphore", SemaphoreNames, [&](const std::string& name) {
            AddSemaphore(name, processes, look.families);
        });
    }
    for (const std::string& reason : look.reasons) {
        if (reasons_.count(reason) == 0) {
            complain_(reason);
        }
    }
    reasons_.swap(look.reasons);
    failures_ += look.failures;
    look.families.Add(kFailures, {}, ValueOf(failures_));
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    look.families.Add(kDuration, {}, took.count());
    return std::move(look.families).Take();
}

}  // namespace qel
