#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Outcome.h"
#include "SysIF.h"
#include "UniqueBlockName.h"
#include "UniqueRingName.h"
#include "UniqueSemaphoreName.h"

namespace qel::test {

/// Names for the objects of one run. They are removed with it, however the run ends.
struct Names {
    UniqueRingName ring;
    UniqueBlockName block;
    UniqueSemaphoreName semaphore;
};

/// What a scenario works on.
struct World {
    const Names& names;
    std::shared_ptr<SysIF> sys;  ///< real, or with faults of its own
};

/// One way to use the library, done once per refused call. An object is used for one run: Prepare,
/// Construct, Run, perhaps Recover, Destroy, Again.
class Scenario {
public:
    explicit Scenario(const World& world) : names_(world.names), sys_(world.sys) {}
    virtual ~Scenario() = default;
    Scenario(const Scenario&) = delete;
    Scenario& operator=(const Scenario&) = delete;

    /// Makes what is there before; nothing is refused meanwhile.
    virtual void Prepare() {}
    /// Makes the object that Run uses and Destroy ends; nothing is refused meanwhile.
    virtual void Construct() {}
    /// What Outcome's texts stand for, known once it is constructed.
    [[nodiscard]] virtual std::map<std::string, std::string> Marks() const { return {}; }

    /// The operation. Calls are refused.
    virtual std::string Run() = 0;
    /// What an outsider finds, and once more when the object is gone; nothing is refused meanwhile.
    virtual std::string State() { return {}; }
    virtual std::string Left() { return {}; }
    /// True if the object is still there after a failure, and can be used again.
    [[nodiscard]] virtual bool CanRecover() const { return false; }
    /// The failure is over: asserts that the object works as far as it should, and does the
    /// operation again where that is allowed.
    /// @return what Run returns
    virtual std::string Recover() { return Run(); }
    /// Ends what Construct and Run have made. Calls are refused.
    virtual void Destroy() {}
    /// Nothing is refused any more: asserts that all of it works with new objects, and that what
    /// was there before still is.
    virtual void Again() = 0;

protected:
    const Names& names_;
    std::shared_ptr<SysIF> sys_;
};

using ScenarioMaker = std::function<std::unique_ptr<Scenario>(const World&)>;

template <typename Kind, typename... Arguments>
ScenarioMaker Make(Arguments... arguments) {
    return
        [arguments...](const World& world) { return std::make_unique<Kind>(world, arguments...); };
}

}  // namespace qel::test
