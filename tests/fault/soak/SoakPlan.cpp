#include "SoakPlan.h"

#include <cmath>
#include <cstdlib>
#include <string>

#include "BuildKind.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kShortRun = kSlowBuild ? 20000 : 200000;
constexpr double kBurstsPerSecond = 10;

std::uint64_t NumberIn(const char* variable) {
    const char* const text = std::getenv(variable);
    return text == nullptr ? 0 : std::stoull(text);
}

}  // namespace

SoakPlan PlanFromEnvironment() {
    SoakPlan plan;
    plan.duration = std::chrono::seconds(NumberIn("QEV_SOAK_SECONDS"));
    plan.packets = plan.duration.count() == 0 ? kShortRun : 0;
    plan.rate = NumberIn("QEV_SOAK_RATE");
    return plan;
}

double SoakClock::Seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

double SoakClock::Done(std::uint64_t packets) const {
    return plan_.packets != 0 ? static_cast<double>(packets) / static_cast<double>(plan_.packets)
                              : Seconds() / static_cast<double>(plan_.duration.count());
}

bool SoakClock::IsTooEarlyFor(std::uint64_t number) const {
    // In bursts, so that all processes sleep in between.
    const double bursts = std::floor(Seconds() * kBurstsPerSecond) + 1;
    return plan_.rate != 0 && static_cast<double>(number) >=
                                  bursts * static_cast<double>(plan_.rate) / kBurstsPerSecond;
}

}  // namespace qel::test
