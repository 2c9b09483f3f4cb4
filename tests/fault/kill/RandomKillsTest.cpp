#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include "AccessTrap.h"
#include "DeathTable.h"
#include "Examination.h"
#include "KillableChain.h"
#include "LongForm.h"
#include "Naming.h"

namespace qel::test {
namespace {

using Words = std::set<std::string>;

constexpr std::uint8_t kSink = 4;
constexpr std::uint64_t kSize = 1500;

Words Split(const std::string& text) {
    Words words;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find(", ", start), text.size());
        words.insert(text.substr(start, end - start));
        start = end + 2;
    }
    words.erase("nothing");
    return words;
}

/// What a node of each kind can leave according to the documented table.
class Outcomes {
public:
    Outcomes(const DeathTable& table, bool hasLimit) {
        for (const Row& row : table.Rows()) {
            const std::string limited = "with a packet limit ";
            const auto mark = row.left.find(limited);
            std::string left = row.left.substr(0, mark);
            if (hasLimit && mark != std::string::npos) {
                left = row.left;
                left.erase(mark, limited.size());
            }
            for (const std::string cut : {"; also ", "; "}) {
                if (const auto place = left.find(cut); place != std::string::npos) {
                    left.replace(place, cut.size(), ", ");
                }
            }
            byRole_[RoleOf(row.operation)].insert(Split(left));
        }
    }

    static std::string RoleOf(const std::string& operation) {
        for (const char* role : {"middle node", "sink"}) {
            if (operation.find(", " + std::string(role)) != std::string::npos) {
                return role;
            }
        }
        return "writer";
    }

    /// What a reader held comes on top of what it left otherwise.
    [[nodiscard]] bool Have(const std::string& role, Words words) const {
        const auto& known = byRole_.at(role);
        const std::string held = LeftText(Finding::HeldBytesLost);
        return known.count(words) != 0 ||
               (known.count({held}) != 0 && words.erase(held) != 0 && known.count(words) != 0);
    }

private:
    std::map<std::string, std::set<Words>> byRole_;
};

std::uint64_t Seed() {
    const char* given = std::getenv("QEV_TEST_SEED");
    return given != nullptr ? std::strtoull(given, nullptr, 10) : std::random_device()();
}

int Kills() {
    return IsLongForm() ? 10000 : 150;
}

class RandomKills : public testing::TestWithParam<std::uint32_t> {
protected:
    RandomKills()
        : seed_(Seed()),
          random_(seed_),
          ring_({kSize, kSink, GetParam()}),
          outcomes_(DeathTable(QEV_RELIABILITY_DOCUMENT), GetParam() != 0),
          chain_(ring_, random_()) {}

    void KillOne(std::uint8_t victim) {
        constexpr std::uint64_t kMostAccesses = 80;
        constexpr std::uint64_t kLongestDelay = 100000;  // turns
        if (AccessTrap::WhyNot() == nullptr && random_() % 4 != 0) {
            chain_.KillAfter(victim, 1 + random_() % kMostAccesses);
            return;
        }
        std::atomic<std::uint64_t> turns{random_() % kLongestDelay};
        while (turns-- != 0) {
        }
        chain_.KillNow(victim);
    }

    void Judge(std::uint8_t victim) {
        const std::string role = victim == 0 ? "writer" : victim == kSink ? "sink" : "middle node";
        const RecordSource records(ring_.File());
        const auto findings = Examine(ring_.Sight(records), victim, {}, ring_.Form().Limit());
        ASSERT_TRUE(findings) << "nothing explains what the " << role << " left";
        Words words;
        std::string text;
        for (const Finding finding : *findings) {
            words.insert(LeftText(finding));
            text += (text.empty() ? "" : ", ") + LeftText(finding);
        }
        EXPECT_TRUE(outcomes_.Have(role, Split(text))) << role << ": " << text;
        ExpectToBeNamed(*findings, victim);
        ++histogram_[role + ": " + (text.empty() ? "nothing" : text)];
    }

    /// As the command sees it, while the others rest and once they are stopped.
    void ExpectToBeNamed(const Findings& findings, std::uint8_t victim) {
        const RecordSource records(ring_.File());
        const auto next = RecordAt(records, ring_.View().control.rIdx[1].load());
        Situation situation{victim, true, {}, next && next->length == kPacketHeaderSize};
        const pid_t other = chain_.Process(victim == 0 ? kSink : 0);
        ExpectNamed(findings, NameWhatIsLeft(ring_, AllBut(victim, kSink, other), 0), ring_,
                    situation);
        situation.areOthersThere = false;
        ExpectNamed(findings, NameWhatIsLeft(ring_, {}, kSink + 1U), ring_, situation);
    }

    /// The ring is put right or, now and then, a new one takes its place.
    void Succeed(std::uint8_t victim) {
        const bool resets = random_() % 16 == 0;
        if (resets) {
            ring_.Clear();
            (void)ring_.Open(0);  // others may be at work before the successor has opened it
        } else {
            ASSERT_TRUE(PutRight(ring_));
        }
        chain_.Start(victim, resets);
        chain_.Resume();
    }

    void PrintHistogram() const {
        for (const auto& [outcome, count] : histogram_) {
            std::printf("%7d  %s\n", count, outcome.c_str());
        }
        std::printf("%7lld  packets delivered\n", static_cast<long long>(chain_.Delivered()));
    }

    std::uint64_t seed_;
    std::mt19937_64 random_;
    RingImage ring_;
    Outcomes outcomes_;
    KillableChain chain_;
    std::map<std::string, int> histogram_;
};

TEST_P(RandomKills, LeaveWhatTheTableSaysAndOnceThatIsPutRightTheChainGoesOn) {
    SCOPED_TRACE("QEV_TEST_SEED=" + std::to_string(seed_));
    const int kills = Kills();
    for (int kill = 0; kill < kills; ++kill) {
        SCOPED_TRACE("kill " + std::to_string(kill));
        const auto victim = static_cast<std::uint8_t>(random_() % (kSink + 1U));
        KillOne(victim);
        ASSERT_TRUE(chain_.Rest()) << chain_.Complaints();
        ASSERT_EQ(chain_.Complaints(), "");
        ASSERT_NO_FATAL_FAILURE(Judge(victim));
        ASSERT_NO_FATAL_FAILURE(Succeed(victim));
    }
    ASSERT_TRUE(chain_.Rest());
    EXPECT_EQ(chain_.Complaints(), "");
    EXPECT_TRUE(chain_.AllDelivered());
    EXPECT_EQ(ring_.View().control.avail[0].load(), kSize);
    EXPECT_EQ(ring_.View().control.numPackets.load(), 0U);
    PrintHistogram();
}

INSTANTIATE_TEST_SUITE_P(Limits, RandomKills, testing::Values(0U, 7U), [](const auto& limit) {
    return limit.param == 0 ? "WithoutLimit" : "WithLimit";
});

}  // namespace
}  // namespace qel::test
