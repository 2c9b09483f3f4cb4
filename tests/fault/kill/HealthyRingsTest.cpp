// Rings at work, of which nothing may be said: chains of processes that are interrupted at any
// moment, in the middle of their steps too.

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <deque>
#include <memory>
#include <optional>
#include <random>
#include <thread>
#include <vector>

#include "Forked.h"
#include "LongForm.h"
#include "NodeClaim.h"
#include "RingCheck.h"
#include "Traffic.h"

namespace qel::test {
namespace {

using std::chrono::microseconds;

struct Form {
    std::uint8_t sink;
    std::uint32_t maxFrames;
    bool claims;
};

/// One node that works for ever, with all kinds of writes, and holds what it reads for a while.
class Worker {
public:
    Worker(const RingImage& ring, std::uint8_t node, bool claims)
        : buffer_(ring.Open(node)), node_(node), random_(node) {
        if (claims) {
            claim_.emplace(ring.Name().Name(), node);
        }
    }

    [[noreturn]] void Work() {
        constexpr unsigned kMostSeconds = 60;
        for (unsigned count = 0;; ++count) {
            if (count % 1024 == 0) {
                ::alarm(kMostSeconds);
            }
            if (node_ == 0 ? !Write() : !Read()) {
                ::sched_yield();
            }
        }
    }

private:
    bool Write() {
        constexpr std::uint64_t kSizes = 230;
        constexpr std::array kKinds{WriteKind::Plain, WriteKind::Critical, WriteKind::Gathered};
        const SMStatusCode status =
            WriteNumbered(*buffer_, next_++, random_() % kSizes, kKinds.at(random_() % 3));
        return status == SMStatusCode::SUCCESS;
    }

    bool Read() {
        constexpr std::size_t kMostHeld = 4;
        constexpr unsigned kSeldom = 512;
        constexpr microseconds kLong(300);
        if (random_() % kSeldom == 0) {
            std::this_thread::sleep_for(kLong);
        }
        if (held_.size() <= random_() % kMostHeld) {
            const auto next = buffer_->ReadNextPacket();
            if (next.status == SMStatusCode::SUCCESS) {
                held_.push_back(next.packet);
                return true;
            }
        }
        if (held_.empty()) {
            return false;
        }
        (void)buffer_->ReleasePacket(held_.front());
        held_.pop_front();
        return true;
    }

    std::unique_ptr<SharedPacketBufferIF> buffer_;
    std::optional<NodeClaim> claim_;
    std::uint8_t node_;
    std::mt19937 random_;
    std::int64_t next_ = 0;
    std::deque<Packet> held_;
};

/// Processes that work on a ring until the end of this object's life.
class WorkingChain {
public:
    explicit WorkingChain(const Form& form) : ring_({kSize, form.sink, form.maxFrames}) {
        for (std::uint8_t node = 0; node <= form.sink; ++node) {
            processes_.push_back(Fork([&] { Worker(ring_, node, form.claims).Work(); }));
        }
    }
    ~WorkingChain() {
        for (const pid_t process : processes_) {
            ::kill(process, SIGKILL);
            (void)WaitFor(process);
        }
    }
    WorkingChain(const WorkingChain&) = delete;
    WorkingChain& operator=(const WorkingChain&) = delete;

    [[nodiscard]] const RingFile& File() const { return ring_.File(); }
    [[nodiscard]] RingUsers Users() const { return RingUsers::Of(File(), ProcessSurvey::Take()); }
    /// Waits until all are there.
    void Await() const {
        while (Users().users.size() < processes_.size() ||
               (Users().LastClaimed() && *Users().LastClaimed() != processes_.size() - 1)) {
            ::sched_yield();
        }
    }

private:
    static constexpr std::uint64_t kSize = 1500;

    RingImage ring_;
    std::vector<pid_t> processes_;
};

int Judgements() {
    constexpr int kForms = 16;
    return IsLongForm() ? 1'000'000 / kForms : 300;
}

class HealthyRings : public testing::TestWithParam<Form> {};

TEST_P(HealthyRings, AreFoundSound) {
    const WorkingChain chain(GetParam());
    chain.Await();
    unsigned pauses = 0;
    int doubted = 0;
    RingCheckOptions options;
    options.judge.lookAgain = [&] { return chain.Users(); };
    options.judge.patience.pause = [&](microseconds time) {
        ++pauses;
        std::this_thread::sleep_for(time);
    };
    constexpr int kSurveyEvery = 1000;
    RingUsers users;
    for (int count = 0; count < Judgements(); ++count) {
        if (count % kSurveyEvery == 0) {
            users = chain.Users();
        }
        pauses = 0;
        for (const Finding& finding : CheckRing(chain.File(), users, options)) {
            EXPECT_EQ(finding.severity, Severity::Note) << finding.code << ": " << finding.text;
        }
        doubted += pauses != 0 ? 1 : 0;
    }
    std::printf("%d of %d judgements took a second look\n", doubted, Judgements());
}

std::vector<Form> Forms() {
    std::vector<Form> forms;
    for (std::uint8_t sink = 1; sink < kMaxNodes; ++sink) {
        for (const std::uint32_t maxFrames : {0U, 7U}) {
            for (const bool claims : {false, true}) {
                forms.push_back({sink, maxFrames, claims});
            }
        }
    }
    return forms;
}

INSTANTIATE_TEST_SUITE_P(Chains, HealthyRings, testing::ValuesIn(Forms()), [](const auto& form) {
    return std::to_string(form.param.sink + 1) + "Nodes" +
           (form.param.maxFrames == 0 ? "" : "WithLimit") + (form.param.claims ? "Claimed" : "");
});

}  // namespace
}  // namespace qel::test
