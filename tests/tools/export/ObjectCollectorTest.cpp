#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <prometheus/check_names.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Command.h"
#include "Metrics.h"
#include "ObjectCollector.h"
#include "RingObject.h"
#include "RingUnderTest.h"
#include "SystemSemaphore.h"
#include "UniqueBlockName.h"
#include "UniqueSemaphoreName.h"

namespace qel::test {
namespace {

using testing::ElementsAre;
using testing::StartsWith;

TEST(Metrics, AreNamedAsPrometheusWantsThem) {
    const RingUnderTest ring(1, 3);
    const UniqueBlockName block;
    WriteFile(block.LockPath(), "");
    const UniqueSemaphoreName semaphore;
    const SystemSemaphore made(semaphore.Name().substr(1), SystemSemaphore::IfMissing::Create);
    const Metrics metrics = Look("qev-test-" + std::to_string(getpid()) + "-*").Now();
    std::set<std::string> names;
    for (const auto& family : metrics.Families()) {
        SCOPED_TRACE(family.name);
        EXPECT_TRUE(names.insert(family.name).second);
        EXPECT_TRUE(prometheus::CheckMetricName(family.name));
        EXPECT_THAT(family.name, StartsWith("qev_"));
        EXPECT_EQ(family.type == prometheus::MetricType::Counter,
                  testing::Value(family.name, testing::EndsWith("_total")));
        EXPECT_THAT(family.help, testing::EndsWith("."));
        std::set<std::vector<prometheus::ClientMetric::Label>> series;
        for (const auto& metric : family.metric) {
            EXPECT_TRUE(series.insert(metric.label).second);
            for (const auto& label : metric.label) {
                EXPECT_TRUE(prometheus::CheckLabelName(label.name)) << label.name;
            }
        }
    }
    EXPECT_GE(names.size(), 20U);
}

TEST(Metrics, OfTheMachineAreThereWithoutAnyObject) {
    const Metrics metrics = Look("qev-test-no-such-name").Now();
    const auto size = metrics.Value("qev_shm_size_bytes", {});
    const auto free = metrics.Value("qev_shm_free_bytes", {});
    ASSERT_TRUE(size && free);
    EXPECT_GT(*size, 0);
    EXPECT_LE(*free, *size);
    EXPECT_GE(metrics.Value("qev_hidden_processes", {}), 0);
    EXPECT_TRUE(metrics.Value("qev_all_processes_listed", {}));
    EXPECT_GT(metrics.Value("qev_exporter_scrape_duration_seconds", {}), 0);
    EXPECT_EQ(metrics.Value("qev_exporter_failures_total", {}), 0);
}

TEST(Metrics, VanishWithTheirObject) {
    const Look look("qev-test-" + std::to_string(getpid()) + "-*");
    std::string name;
    {
        const UniqueRingName ring;
        name = ring.Name();
        const RingObject object(name, 5000);
        EXPECT_GT(look.Now().With("ring", name), 0);
    }
    EXPECT_EQ(look.Now().With("ring", name), 0);
    EXPECT_THAT(look.Complaints(), ElementsAre());
}

TEST(Metrics, ShowNoMoreObjectsOfAKindThanAskedForAndSayHowManyAreLeftOut) {
    std::vector<std::unique_ptr<UniqueRingName>> rings;
    for (int i = 0; i < 3; ++i) {
        rings.push_back(std::make_unique<UniqueRingName>());
        WriteFile(rings.back()->Path(), "");
    }
    const std::string pattern = "qev-test-" + std::to_string(getpid()) + "-*";
    const auto shown = [&](const Metrics& metrics) {
        std::set<std::string> names;
        for (const auto& ring : rings) {
            if (metrics.With("ring", ring->Name()) > 0) {
                names.insert(ring->Name());
            }
        }
        return names;
    };
    const Metrics two = Look(pattern, RingTotals::Use::States, 2).Now();
    const std::set<std::string> names{rings[0]->Name(), rings[1]->Name(), rings[2]->Name()};
    EXPECT_EQ(shown(two), (std::set<std::string>{names.begin(), std::next(names.begin(), 2)}));
    EXPECT_EQ(two.Value("qev_exporter_left_out_objects", {{"kind", "ring"}}), 1);
    EXPECT_EQ(two.Value("qev_exporter_left_out_objects", {{"kind", "block"}}), 0);
    const Metrics three = Look(pattern, RingTotals::Use::States, 3).Now();
    EXPECT_EQ(shown(three), names);
    EXPECT_EQ(three.Value("qev_exporter_left_out_objects", {{"kind", "ring"}}), 0);
}

TEST(Metrics, LabelsAreTheNamesInUtf8) {
    const std::string name = "qev-test-" + std::to_string(getpid()) + "-\xff\n\"é";
    const std::string path = "/dev/shm/" + name + ".shm";
    WriteFile(path, "");
    const Metrics metrics = Look("qev-test-" + std::to_string(getpid()) + "-*").Now();
    EXPECT_EQ(unlink(path.c_str()), 0);
    EXPECT_GT(metrics.With("ring", "qev-test-" + std::to_string(getpid()) + "-\\xff\\x0a\"é"), 0);
}

TEST(Metrics, CountWhatCannotBeLookedAtAndTellEachReasonOnce) {
    const UniqueRingName ring;
    ASSERT_EQ(mkdir(ring.Path().c_str(), 0700), 0);
    const Look look(ring.Name());
    const Metrics metrics = look.Now();
    EXPECT_EQ(metrics.With("ring", ring.Name()), 0);
    EXPECT_EQ(metrics.Value("qev_exporter_unreadable_objects", {{"kind", "ring"}}), 1);
    EXPECT_EQ(metrics.Value("qev_exporter_failures_total", {}), 1);
    EXPECT_EQ(look.Now().Value("qev_exporter_failures_total", {}), 2);
    EXPECT_THAT(look.Complaints(),
                ElementsAre("cannot read " + ring.Path() + ": 22(Invalid argument)"));
    ASSERT_EQ(rmdir(ring.Path().c_str()), 0);
    const Metrics after = look.Now();
    EXPECT_EQ(after.Value("qev_exporter_unreadable_objects", {{"kind", "ring"}}), 0);
    EXPECT_EQ(after.Value("qev_exporter_failures_total", {}), 2);
    ASSERT_EQ(mkdir(ring.Path().c_str(), 0700), 0);
    (void)look.Now();
    EXPECT_EQ(look.Complaints().size(), 2U);  // it had been gone
    ASSERT_EQ(rmdir(ring.Path().c_str()), 0);
}

TEST(Metrics, MayBeCollectedByManyThreads) {
    const RingUnderTest ring;
    const Look look(ring.Name());
    std::vector<std::thread> threads(4);
    for (std::thread& thread : threads) {
        thread = std::thread([&] { EXPECT_GT(look.Now().With("ring", ring.Name()), 0); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(ObjectChoices, AreByPatternsAsTheShellHasThem) {
    const std::vector<std::string> names{"a", "camera1", "camera22", "mic"};
    const auto chosen = [&](std::vector<std::string> patterns) {
        return ChooseFrom(names, {std::move(patterns), 10}).names;
    };
    EXPECT_EQ(chosen({}), names);
    EXPECT_THAT(chosen({"a"}), ElementsAre("a"));
    EXPECT_THAT(chosen({"camera?"}), ElementsAre("camera1"));
    EXPECT_THAT(chosen({"mic", "camera*"}), ElementsAre("camera1", "camera22", "mic"));
    EXPECT_THAT(chosen({"[b-z]*[0-9]"}), ElementsAre("camera1", "camera22"));
    EXPECT_THAT(chosen({"b"}), ElementsAre());
}

}  // namespace
}  // namespace qel::test
