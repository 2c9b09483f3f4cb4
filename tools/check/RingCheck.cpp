#include "RingCheck.h"

#include <fmt/format.h>

#include <algorithm>
#include <gsl/util>

#include "ObjectCheck.h"
#include "RingFlow.h"
#include "RingText.h"
#include "Text.h"
#include "UserText.h"

namespace qel {
namespace {

using Doubt = JudgedDeviation::Doubt;
using Kind = RingDeviation::Kind;

/// What the deviations of one ring are to its operator.
class Telling {
public:
    Telling(const RingFile& ring, const RingJudgement& judgement)
        : ring_(ring), judgement_(judgement), object_("ring " + OneLine(ring.Name())) {}

    void Tell(Findings& findings, const JudgedDeviation& judged) const {
        const Kind kind = judged.deviation.kind;
        Finding finding{Severity::Fault,
                        std::string(CodeOf(kind)),
                        object_,
                        TextOf(judged.deviation, judgement_.fields, judgement_.sink),
                        {}};
        if (kind == Kind::UnusedFieldsSet) {
            finding.severity = Severity::Warning;
        }
        finding.mend = Mend(judged.deviation);
        AddDoubt(finding, judged);
        if (judgement_.isChainUnclear) {
            finding.text += fmt::format(", if the chain has {} nodes", judgement_.sink + 1);
        }
        findings.push_back(std::move(finding));
    }

private:
    void AddDoubt(Finding& finding, const JudgedDeviation& judged) const {
        switch (judged.doubt) {
            case Doubt::None:
                return;
            case Doubt::Stopped:
                finding.severity = Severity::Warning;
                finding.text += fmt::format("; or {} stopped in the middle of it",
                                            WithVerb(judged.suspects, "is", "are"));
                finding.mend =
                    fmt::format("kill -CONT {}", judged.suspects.front().pid) +
                    (finding.mend.empty() ? "" : ", and if that does not help: " + finding.mend);
                return;
            case Doubt::Waiting:
                finding.severity = Severity::Note;
                finding.text += fmt::format(
                    "; or {}: look again",
                    WithVerb(judged.suspects,
                             "is in the middle of it, and has not been run meanwhile",
                             "are in the middle of it, and have not been run meanwhile"));
                finding.mend.clear();
                return;
            case Doubt::Hidden: {
                const bool mayBeHeld = judged.deviation.kind == Kind::BytesLost ||
                                       judged.deviation.kind == Kind::FullRingLost;
                finding.severity = mayBeHeld ? Severity::Note : Severity::Warning;
                finding.text += fmt::format("; or somebody {}: {}",
                                            mayBeHeld ? "holds them" : "is in the middle of it",
                                            judgement_.users.HiddenText());
                return;
            }
        }
    }

    [[nodiscard]] std::string Mend(const RingDeviation& deviation) const {
        if (deviation.kind == Kind::UnusedFieldsSet) {
            return {};
        }
        const std::string stop = judgement_.users.users.empty() ? "" : "stop its processes, then ";
        RingDeviations all;
        for (const JudgedDeviation& judged : judgement_.found) {
            all.push_back(judged.deviation);
        }
        if (IsPossible(all)) {
            return stop +
                   QevCommand("repair", ring_.Name(), judgement_.isChainUnclear ? "--nodes N" : "");
        }
        return stop + QevCommand("clean", ring_.Name());
    }

    const RingFile& ring_;
    const RingJudgement& judgement_;
    std::string object_;
};

void CheckLength(Findings& findings, const RingFile& ring) {
    const struct stat now = ring.StatusNow();
    const std::string object = "ring " + OneLine(ring.Name());
    if (now.st_size != ring.Status().st_size) {
        findings.push_back({Severity::Warning, "length-changed", object,
                            fmt::format("its object had {} bytes and has {} now: somebody has cut "
                                        "or grown it meanwhile",
                                        ring.Status().st_size, now.st_size)});
    } else if (now.st_size == 0) {
        findings.push_back({Severity::Note, "empty", object,
                            "its object has no bytes: whoever opens it gives it its size"});
    } else if (ring.Size() == 0) {
        findings.push_back({Severity::Fault, "too-short", object, TooShortText(now),
                            QevCommand("clean", ring.Name())});
    }
}

void CheckLimit(Findings& findings, const RingFile& ring, const RingFields& fields,
                std::uint32_t maxFrames) {
    const std::uint32_t limit = maxFrames == 0 ? 0 : maxFrames + 1;
    if (fields.initialised == 0 || fields.maxPackets == limit) {
        return;
    }
    findings.push_back(
        {Severity::Fault, fields.maxPackets == 0 ? "limit-missing" : "limit-differs",
         "ring " + OneLine(ring.Name()),
         fmt::format("maxPackets is {}, and with --max-frames {} it is {}", fields.maxPackets,
                     maxFrames, limit),
         "stop its processes, then " +
             QevCommand("repair", ring.Name(), fmt::format("--max-frames {}", maxFrames))});
}

/// Who is missing while others are there, and who is stopped.
void CheckMembers(Findings& findings, const RingFile& ring, const RingJudgement& judgement) {
    const RingUsers& users = judgement.users;
    const std::string object = "ring " + OneLine(ring.Name());
    for (const ObjectUser& user : users.users) {
        if (user.state == 'T' || user.state == 't') {
            findings.push_back({Severity::Warning, "stopped", object,
                                fmt::format("process {} {} uses it, and is stopped", user.pid,
                                            OneLine(user.command)),
                                fmt::format("kill -CONT {}", user.pid)});
        }
    }
    const bool doAllClaim =
        !users.users.empty() &&
        std::all_of(users.users.begin(), users.users.end(),
                    [](const ObjectUser& user) { return !user.Nodes().empty(); });
    for (unsigned node = 1; doAllClaim && node <= judgement.sink; ++node) {
        const std::uint64_t waiting =
            gsl::at(judgement.fields.avail, static_cast<gsl::index>(node));
        if (users.IsClaimed(node) || waiting == 0) {
            continue;
        }
        Finding finding{
            Severity::Warning, "node-missing", object,
            fmt::format("node {} is not there, and {} bytes wait for it", node, waiting),
            fmt::format("start node {}", node)};
        if (users.MayBeHidden()) {
            finding.severity = Severity::Note;
            finding.text += "; or it cannot be seen: " + users.HiddenText();
        }
        findings.push_back(std::move(finding));
    }
}

}  // namespace

Findings CheckRing(const RingFile& ring, const RingUsers& users, const RingCheckOptions& options) {
    Findings findings;
    CheckLength(findings, ring);
    if (!findings.empty()) {
        return findings;
    }
    const RingJudgement judgement = JudgeRing(ring, users, options.judge);
    const Telling telling(ring, judgement);
    for (const JudgedDeviation& judged : judgement.found) {
        telling.Tell(findings, judged);
    }
    if (options.maxFrames) {
        CheckLimit(findings, ring, judgement.fields, *options.maxFrames);
    }
    CheckMembers(findings, ring, judgement);
    return findings;
}

RingHealth HealthOf(const RingFile& ring, const RingUsers& users) {
    if (ring.Size() == 0) {
        return ring.Status().st_size == 0 ? RingHealth::Sound : RingHealth::Damaged;
    }
    constexpr std::chrono::microseconds kGlance(50'000);
    RingJudgeOptions options;
    options.patience = {10, kGlance / 2, kGlance, {}};
    const RingJudgement judgement = JudgeRing(ring, users, options);
    RingDeviations deviations;
    for (const JudgedDeviation& judged : judgement.found) {
        if (judged.deviation.kind == Kind::NeverInitialised) {
            return RingHealth::NeverInitialised;
        }
        const bool isCertain = judged.doubt == Doubt::None || judged.doubt == Doubt::Stopped;
        if (isCertain && judged.deviation.kind != Kind::UnusedFieldsSet) {
            deviations.push_back(judged.deviation);
        }
    }
    return deviations.empty()       ? RingHealth::Sound
           : IsPossible(deviations) ? RingHealth::Desynchronised
                                    : RingHealth::Damaged;
}

}  // namespace qel
