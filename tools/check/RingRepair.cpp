#include "RingRepair.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <gsl/util>
#include <stdexcept>

#include "Finding.h"
#include "RingDeviation.h"
#include "RingFlow.h"
#include "RingJudge.h"
#include "RingText.h"
#include "Text.h"

namespace qel {
namespace {

using Kind = RingDeviation::Kind;

/// A length that the chain may have, and how the ring is put right then.
struct Candidate {
    unsigned sink;
    RingDeviations deviations;
    RingFields after;
};

std::uint64_t AvailOf(const RingFields& fields, unsigned node) {
    return gsl::at(fields.avail, static_cast<gsl::index>(node));
}

/// "3 packets", of `bytes` bytes from `offset` on; "1234 bytes" where these are not whole packets.
std::string PacketsText(const RecordSource& records, std::uint64_t offset, std::uint64_t bytes) {
    const auto count = CountRecords(records, offset % records.Size(), bytes);
    return count ? Counted(*count, "packet") : Counted(bytes, "byte");
}

std::vector<std::string> RemarksOf(const RecordSource& records, const RingFields& before,
                                   const Candidate& candidate) {
    std::vector<std::string> remarks;
    const std::uint64_t size = records.Size();
    for (const RingDeviation& deviation : candidate.deviations) {
        if (deviation.kind == Kind::RecordBytesLost) {
            remarks.push_back("lost: the packet that the writer had not finished");
        }
        if (deviation.kind != Kind::BytesLost) {
            continue;
        }
        const unsigned node = deviation.node;
        if (node == candidate.sink) {
            remarks.push_back(fmt::format(
                "lost: {}, which the sink had read or the writer had not finished",
                PacketsText(records, candidate.after.wIdx[0] + before.avail[0], deviation.bytes)));
            continue;
        }
        const std::uint64_t index = gsl::at(before.rIdx, static_cast<gsl::index>(node));
        remarks.push_back(fmt::format(
            "kept: {}, which node {} had read, for node {}",
            PacketsText(records, index + size - deviation.bytes, deviation.bytes), node, node + 1));
    }
    for (unsigned node = 1; node <= candidate.sink; ++node) {
        const std::uint64_t waiting = AvailOf(candidate.after, node);
        const std::uint64_t index = gsl::at(before.rIdx, static_cast<gsl::index>(node));
        if (waiting > 0) {
            remarks.push_back(
                fmt::format("waiting for node {}: {}", node, PacketsText(records, index, waiting)));
        }
    }
    return remarks;
}

/// All lengths of the chain for which the rule can put the ring right; of others the first reason.
std::vector<Candidate> CandidatesAmong(const std::vector<unsigned>& sinks, const RingFields& fields,
                                       const RecordSource& records, std::uint32_t maxPackets,
                                       std::string& refusal) {
    std::vector<Candidate> candidates;
    for (const unsigned sink : sinks) {
        const RingSight sight{fields, records, sink};
        RingDeviations deviations = DeviationsOf(sight, NodesThere{});
        const auto worst =
            std::find_if(deviations.begin(), deviations.end(),
                         [](const auto& deviation) { return !IsPossible({deviation}); });
        const auto after = worst == deviations.end() ? PutRight(sight, maxPackets) : std::nullopt;
        if (after) {
            candidates.push_back({sink, std::move(deviations), *after});
        } else if (refusal.empty()) {
            refusal = worst == deviations.end() ? "its records do not fit its indices"
                                                : TextOf(*worst, fields, sink);
        }
    }
    return candidates;
}

std::vector<Candidate> CandidatesFor(const Sinks& sinks, const RingFields& fields,
                                     const RecordSource& records, std::uint32_t maxPackets,
                                     std::string& refusal) {
    auto candidates = CandidatesAmong(sinks.likely, fields, records, maxPackets, refusal);
    if (candidates.empty() || candidates.front().after != fields) {
        for (auto& other : CandidatesAmong(sinks.others, fields, records, maxPackets, refusal)) {
            candidates.push_back(std::move(other));
        }
    }
    return candidates;
}

void Store(std::uint64_t& field, std::uint64_t value) {
    __atomic_store_n(&field, value, __ATOMIC_SEQ_CST);
}

}  // namespace

std::vector<std::string> RingRepairPlan::Changes() const {
    std::vector<std::string> changes;
    const auto compare = [&](const std::string& name, std::uint64_t was, std::uint64_t is) {
        if (was != is) {
            changes.push_back(fmt::format("{:<11} {} -> {}", name, was, is));
        }
    };
    for (unsigned node = 0; node < kMaxNodes; ++node) {
        compare(fmt::format("avail[{}]", node), AvailOf(before, node), AvailOf(after, node));
    }
    compare("wIdx[0]", before.wIdx[0], after.wIdx[0]);
    compare("numPackets", before.numPackets, after.numPackets);
    compare("maxPackets", before.maxPackets, after.maxPackets);
    compare("halfSize", before.halfSize, after.halfSize);
    compare("quarterSize", before.quarterSize, after.quarterSize);
    return changes;
}

RingRepairPlan PlanRepair(const RingFile& ring, const RingRepairOptions& options) {
    RingRepairPlan plan;
    plan.before = plan.after = ring.Fields();
    const RecordSource records(ring);
    if (ring.Size() == 0) {
        plan.refusal = TooShortText(ring.Status());
        plan.instead = QevCommand("clean", ring.Name());
        return plan;
    }
    const unsigned awaited = LastNodeAwaited(plan.before);
    if (options.nodes && *options.nodes < awaited + 1) {
        plan.refusal = fmt::format("packets wait for node {}: the chain has {} nodes or more",
                                   awaited, awaited + 1);
        plan.instead = QevCommand("repair", ring.Name(), fmt::format("--nodes {}", awaited + 1));
        return plan;
    }
    const std::uint32_t maxPackets = !options.maxFrames        ? plan.before.maxPackets
                                     : *options.maxFrames == 0 ? 0
                                                               : *options.maxFrames + 1;
    const auto candidates = CandidatesFor(SinksOf(plan.before, ring.Size(), {}, options.nodes),
                                          plan.before, records, maxPackets, plan.refusal);
    if (candidates.empty()) {
        plan.instead = QevCommand("clean", ring.Name());
        return plan;
    }
    const Candidate& chosen = candidates.front();
    const auto other =
        std::find_if(candidates.begin(), candidates.end(),
                     [&](const Candidate& candidate) { return candidate.after != chosen.after; });
    if (other != candidates.end()) {
        plan.refusal = fmt::format(
            "the ring does not tell whether its chain has {} nodes or {}, and that "
            "makes a difference",
            chosen.sink + 1, other->sink + 1);
        plan.instead = QevCommand("repair", ring.Name(), "--nodes N");
        return plan;
    }
    plan.refusal.clear();
    plan.after = chosen.after;
    plan.remarks = RemarksOf(records, plan.before, chosen);
    return plan;
}

RingHold::RingHold(const RingFile& ring, IfInUse ifInUse)
    : ring_(ring), file_(open(RingPath(ring.Name()).c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW)) {
    const std::string who = "ring " + OneLine(ring.Name());
    struct stat status {};
    if (!file_.IsOpen() || fstat(file_.Fd(), &status) != 0) {
        const int error = errno;
        throw std::runtime_error(
            fmt::format("{} cannot be written to: {}({})", who, error, std::strerror(error)));
    }
    if (status.st_dev != ring.Status().st_dev || status.st_ino != ring.Status().st_ino ||
        status.st_size != ring.Status().st_size) {
        throw std::runtime_error(who + " was replaced or has another size meanwhile");
    }
    if (ifInUse == IfInUse::Refuse) {
        if (flock(file_.Fd(), LOCK_EX | LOCK_NB) != 0) {
            throw std::runtime_error(who + ": somebody opens it at this moment");
        }
        struct flock nodes {};
        nodes.l_type = F_WRLCK;
        nodes.l_whence = SEEK_SET;
        nodes.l_len = kMaxNodes;
        if (fcntl(file_.Fd(), F_OFD_SETLK, &nodes) != 0) {
            throw std::runtime_error(who + ": somebody claims a node of it");
        }
    }
    page_ = GuardedPage(file_.Fd(), GuardedPage::Access::Write);
    if (page_.DataToWrite() == nullptr) {
        throw std::runtime_error(who + " cannot be mapped");
    }
}

void RingHold::Apply(const RingRepairPlan& plan, const std::function<void()>& afterEach) const {
    if (ring_.Fields() != plan.before) {
        throw std::runtime_error("ring " + OneLine(ring_.Name()) +
                                 ": somebody is at work on it, nothing was changed");
    }
    ControlBlock& control = *static_cast<ControlBlock*>(page_.DataToWrite());
    const auto done = [&] {
        if (afterEach) {
            afterEach();
        }
    };
    const auto set = [&](std::atomic<std::uint64_t>& field, std::uint64_t was, std::uint64_t is) {
        if (was != is) {
            field.store(is);
            done();
        }
    };
    // The free bytes come last: without them nobody writes.
    if (plan.before.maxPackets != plan.after.maxPackets) {
        __atomic_store_n(&control.maxPackets, plan.after.maxPackets, __ATOMIC_SEQ_CST);
        done();
    }
    if (plan.before.halfSize != plan.after.halfSize) {
        Store(control.halfSize, plan.after.halfSize);
        done();
    }
    if (plan.before.quarterSize != plan.after.quarterSize) {
        Store(control.quarterSize, plan.after.quarterSize);
        done();
    }
    if (plan.before.numPackets != plan.after.numPackets) {
        control.numPackets.store(plan.after.numPackets);
        done();
    }
    set(control.wIdx[0], plan.before.wIdx[0], plan.after.wIdx[0]);
    for (gsl::index node = kMaxNodes - 1; node >= 0; --node) {
        set(gsl::at(control.avail, node), gsl::at(plan.before.avail, node),
            gsl::at(plan.after.avail, node));
    }
    if (ring_.Fields() != plan.after) {
        throw std::runtime_error(
            "ring " + OneLine(ring_.Name()) +
            ": somebody has worked on it meanwhile: look at it with qev doctor");
    }
}

}  // namespace qel
