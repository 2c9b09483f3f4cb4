#include "RingJudge.h"

#include <algorithm>
#include <iterator>
#include <thread>
#include <utility>

#include "StepWatch.h"

namespace qel {
namespace {

using Kind = RingDeviation::Kind;
using Doubt = JudgedDeviation::Doubt;
using std::chrono::microseconds;

/// Looks at one ring, again and again.
class Judge {
public:
    Judge(const RingFile& ring, const RingUsers& users, const RingJudgeOptions& options)
        : ring_(ring), users_(users), options_(options) {}

    RingJudgement Do() {
        std::optional<Glance> glance = FirstLook();
        if (!glance || glance->deviations.empty()) {
            return Sound(glance);  // nothing is wrong, or it never stands still: it is at work
        }
        if (users_.AreNone()) {
            if (const auto still = LookAtStill(*glance)) {
                return Judged(*still);
            }
            glance = Look();
        }
        return Watch(glance);
    }

private:
    [[nodiscard]] std::optional<Glance> Look() const {
        return GlanceOf(ring_, users_, options_.nodes);
    }

    void Pause(microseconds time) {
        waited_ += time;
        if (options_.patience.pause) {
            options_.patience.pause(time);
        } else {
            std::this_thread::sleep_for(time);
        }
    }

    RingJudgement Sound(const std::optional<Glance>& glance) const {
        RingJudgement judgement;
        judgement.fields = glance ? glance->fields : ring_.Fields();
        judgement.users = users_;
        judgement.sink =
            glance ? glance->sink
                   : SinksOf(judgement.fields, ring_.Size(), users_, options_.nodes).likely.front();
        return judgement;
    }

    std::optional<Glance> FirstLook() {
        constexpr int kMostLooks = 10;
        constexpr microseconds kPause(100);
        std::optional<Glance> glance = Look();
        for (int look = 1; !glance && look < kMostLooks; ++look) {
            Pause(kPause);
            glance = Look();
        }
        return glance;
    }

    /// Of a ring that nobody seems to use.
    /// @return nothing if somebody is at work on it after all
    std::optional<Glance> LookAtStill(const Glance& glance) {
        constexpr int kLooks = 3;
        constexpr microseconds kPause(5000);
        for (int look = 0; look < kLooks; ++look) {
            Pause(kPause);
            if (ring_.Fields() != glance.fields) {
                Recount();
                return std::nullopt;
            }
        }
        if (options_.lookAgain) {
            Recount();
        }
        return users_.AreNone() ? std::optional(glance) : std::nullopt;
    }

    /// Somebody has come: who it is must be found out, or it may be anybody.
    void Recount() {
        if (options_.lookAgain) {
            users_ = options_.lookAgain();
        } else {
            users_.isAnybody = true;
        }
    }

    /// What was the same at several looks.
    struct Steady {
        RingDeviations deviations;
        unsigned looks = 0;
        microseconds since{0};
    };

    /// Looks until nothing is wrong, or the same was wrong for long enough.
    RingJudgement Watch(const std::optional<Glance>& first) {
        constexpr microseconds kFirstPause(200);
        constexpr microseconds kLongestPause(40'000);
        const microseconds end = waited_ + options_.patience.longest + options_.patience.settled;
        Steady steady;
        if (first) {
            Begin(steady, *first);
        }
        Glance last = first.value_or(Glance{});
        for (microseconds pause = kFirstPause; waited_ < end;
             pause = std::min(kLongestPause, 2 * pause)) {
            Pause(pause);
            const std::optional<Glance> glance = Look();
            if (!glance) {
                continue;
            }
            if (glance->deviations.empty()) {
                return Sound(glance);
            }
            if (!GoOn(steady, *glance)) {
                Begin(steady, *glance);
                pause = kFirstPause;
            }
            last = *glance;
            last.deviations = steady.deviations;
            if (IsSettled(steady) &&
                (waited_ - steady.since >= options_.patience.longest || !IsAnyWaiting(last))) {
                break;
            }
        }
        return IsSettled(steady) ? Judged(last) : Sound(Look());
    }

    void Begin(Steady& steady, const Glance& glance) {
        steady = {Sorted(glance.deviations), 1, waited_};
        watch_.emplace(users_.users);
    }

    /// @return false if nothing of it is the same
    static bool GoOn(Steady& steady, const Glance& glance) {
        const RingDeviations now = Sorted(glance.deviations);
        RingDeviations both;
        std::set_intersection(steady.deviations.begin(), steady.deviations.end(), now.begin(),
                              now.end(), std::back_inserter(both));
        steady.deviations = std::move(both);
        ++steady.looks;
        return !steady.deviations.empty();
    }

    [[nodiscard]] bool IsSettled(const Steady& steady) const {
        return steady.looks >= options_.patience.looks &&
               waited_ - steady.since >= options_.patience.settled;
    }

    static RingDeviations Sorted(RingDeviations deviations) {
        std::sort(deviations.begin(), deviations.end());
        return deviations;
    }

    /// Nodes that show the deviation in the middle of a step.
    [[nodiscard]] static std::vector<unsigned> NodesBehind(const RingDeviation& deviation,
                                                           unsigned sink) {
        switch (deviation.kind) {
            case Kind::RecordHandedOn:
            case Kind::FillerBegun:
            case Kind::FillerBytesLost:
            case Kind::FillerHandedOn:
            case Kind::RecordBytesLost:
                return {0};
            case Kind::TakingBytesLost:
                return {deviation.node};
            case Kind::BytesLost:
                return {deviation.node == sink ? 0 : deviation.node + 1};
            case Kind::CountHigh:
            case Kind::CountLow:
                return {0, sink};
            default:
                break;
        }
        std::vector<unsigned> all;
        for (unsigned node = 0; node < kMaxNodes; ++node) {
            all.push_back(node);
        }
        return all;
    }

    [[nodiscard]] JudgedDeviation WithDoubt(const RingDeviation& deviation, unsigned sink) const {
        JudgedDeviation judged{deviation};
        bool isOnlyStopped = true;
        for (const ObjectUser& user : users_.users) {
            const auto nodes = NodesBehind(deviation, sink);
            const auto claimed = user.Nodes();
            const bool mayBe =
                claimed.empty() || std::any_of(nodes.begin(), nodes.end(), [&](unsigned node) {
                    return std::find(claimed.begin(), claimed.end(), node) != claimed.end();
                });
            const auto progress =
                mayBe && watch_ ? watch_->Since(user.pid) : StepWatch::Progress::Gone;
            if (progress == StepWatch::Progress::Stopped || progress == StepWatch::Progress::None) {
                judged.suspects.push_back(user);
                isOnlyStopped = isOnlyStopped && progress == StepWatch::Progress::Stopped;
            }
        }
        judged.doubt = !judged.suspects.empty() ? (isOnlyStopped ? Doubt::Stopped : Doubt::Waiting)
                       : users_.MayBeHidden()   ? Doubt::Hidden
                                                : Doubt::None;
        return judged;
    }

    [[nodiscard]] bool IsAnyWaiting(const Glance& glance) const {
        return std::any_of(glance.deviations.begin(), glance.deviations.end(),
                           [&](const auto& deviation) {
                               return WithDoubt(deviation, glance.sink).doubt == Doubt::Waiting;
                           });
    }

    [[nodiscard]] RingJudgement Judged(const Glance& glance) const {
        RingJudgement judgement = Sound(glance);
        judgement.isChainUnclear = glance.isChainUnclear;
        for (const RingDeviation& deviation : glance.deviations) {
            judgement.found.push_back(WithDoubt(deviation, glance.sink));
        }
        return judgement;
    }

    const RingFile& ring_;
    RingUsers users_;
    const RingJudgeOptions& options_;
    std::optional<StepWatch> watch_;
    microseconds waited_{0};
};

}  // namespace

RingJudgement JudgeRing(const RingFile& ring, const RingUsers& users,
                        const RingJudgeOptions& options) {
    return Judge(ring, users, options).Do();
}

}  // namespace qel
