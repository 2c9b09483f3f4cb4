// The logger: which records are emitted, when, and where they go.

#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "CapturedLog.h"
#include "LogClient.h"
#include "LogControl.h"

namespace qel::test {
namespace {

constexpr LogCategory kCategory = LogCategory::LockFile;

TEST(LoggerLevels, NumbersRankAsInSyslogAndCategoriesHaveTheirs) {
    EXPECT_EQ(2, static_cast<int>(LogLevel::Critical));
    EXPECT_EQ(3, static_cast<int>(LogLevel::Error));
    EXPECT_EQ(4, static_cast<int>(LogLevel::Warning));
    EXPECT_EQ(0x8010U, static_cast<unsigned>(LogCategory::SharedBuffer));
    EXPECT_EQ(0x8027U, static_cast<unsigned>(LogCategory::LockFile));
}

TEST(LoggerLevels, WarningsAndWhatIsGraverAreEnabledByDefault) {
    EXPECT_EQ(LogLevel::Warning, LogControl::Threshold());
    for (int level = 0; level <= 7; ++level) {
        EXPECT_EQ(level <= 4, LogClient::LevelIsEnabled(static_cast<LogLevel>(level))) << level;
    }
}

TEST(LoggerLevels, ThresholdDecidesWhichLevelsAreEnabled) {
    const CapturedLog restoresTheThreshold;
    for (int threshold = 0; threshold <= 7; ++threshold) {
        LogControl::SetThreshold(static_cast<LogLevel>(threshold));
        EXPECT_EQ(threshold, static_cast<int>(LogControl::Threshold()));
        for (int level = 0; level <= 7; ++level) {
            EXPECT_EQ(level <= threshold, LogClient::LevelIsEnabled(static_cast<LogLevel>(level)))
                << level << " at " << threshold;
        }
    }
}

TEST(LoggerRecords, RecordIsEmittedWhenTheClientGoesAndNotBefore) {
    const CapturedLog log;
    {
        LogClient client("path", "Operation", 7, LogLevel::Error, kCategory);
        client << "text";
        EXPECT_TRUE(log.Records().empty());
    }
    EXPECT_EQ(1U, log.Records().size());
}

TEST(LoggerRecords, RecordCarriesAllThatItWasMadeWith) {
    const CapturedLog log;
    const auto before = std::chrono::system_clock::now();
    {
        std::string path = "common/lib/X";
        std::string operation = "Open";
        LogClient client(path, operation, 321, LogLevel::Error, kCategory);
        path.assign(path.size(), '?');  // the texts were copied
        operation.assign(operation.size(), '?');
        client << "name" << ' ' << -3 << " " << 4U << std::string(" end");
    }
    const auto after = std::chrono::system_clock::now();
    ASSERT_EQ(1U, log.Records().size());
    const LogRecord& record = log.Records()[0];
    EXPECT_EQ("common/lib/X", record.sourcePath);
    EXPECT_EQ("Open", record.operation);
    EXPECT_EQ(321U, record.line);
    EXPECT_EQ(LogLevel::Error, record.level);
    EXPECT_EQ(kCategory, record.category);
    EXPECT_EQ("name -3 4 end", record.text);
    EXPECT_LE(before, record.time);
    EXPECT_LE(record.time, after);
}

TEST(LoggerRecords, RecordWithoutTextIsEmittedToo) {
    const CapturedLog log;
    { const LogClient client("path", "Operation", 7, LogLevel::Error, kCategory); }
    ASSERT_EQ(1U, log.Records().size());
    EXPECT_EQ("", log.Records()[0].text);
}

TEST(LoggerRecords, SinkThatThrowsLosesItsRecordAlone) {
    int calls = 0;
    LogControl::SetSink([&](const LogRecord&) {
        ++calls;
        throw std::runtime_error("no");
    });
    for (int i = 0; i < 2; ++i) {
        EXPECT_NO_THROW(LogClient("path", "Operation", 7, LogLevel::Error, kCategory) << i);
    }
    LogControl::SetSink({});
    EXPECT_EQ(2, calls);
}

TEST(LoggerRecords, RecordsOfManyThreadsReachTheSinkOneByOneAndWhole) {
    constexpr std::size_t kThreads = 4;
    constexpr std::size_t kRecords = 500;
    std::atomic<int> inside{0};
    int overlaps = 0;
    std::vector<std::string> texts;  // unguarded: the sink is called by one thread at a time
    LogControl::SetSink([&](const LogRecord& record) {
        overlaps += inside.fetch_add(1);
        texts.push_back(record.text);
        inside.fetch_sub(1);
    });
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (std::size_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (std::size_t i = 0; i < kRecords; ++i) {
                LogClient("path", "Operation", 7, LogLevel::Error, kCategory)
                    << "thread " << t << " record " << i;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    LogControl::SetSink({});
    EXPECT_EQ(0, overlaps);
    ASSERT_EQ(kThreads * kRecords, texts.size());
    for (std::size_t t = 0; t < kThreads; ++t) {
        std::size_t next = 0;
        const std::string prefix = "thread " + std::to_string(t) + " record ";
        for (const std::string& text : texts) {
            if (text.rfind(prefix, 0) == 0) {
                EXPECT_EQ(prefix + std::to_string(next++), text);
            }
        }
        EXPECT_EQ(kRecords, next);
    }
}

class LoggerDefaultOutput : public testing::Test {
protected:
    static std::string Emit(LogLevel level, LogCategory category, const std::string& text) {
        testing::internal::CaptureStderr();
        LogClient("common/lib/X", "Open", 42, level, category) << text;
        return testing::internal::GetCapturedStderr();
    }
    static constexpr const char* kTime =
        "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";

    static void ExpectLine(const std::string& pattern, const std::string& output) {
        EXPECT_TRUE(std::regex_match(output, std::regex(kTime + pattern + "\n"))) << output;
    }
};

TEST_F(LoggerDefaultOutput, OneLineTellsTimeLevelCategoryPathOperationLineAndText) {
    ExpectLine("critical 0x8010 common/lib/X Open:42 name refused - 13",
               Emit(LogLevel::Critical, LogCategory::SharedBuffer, "name refused - 13"));
    ExpectLine("error 0x8027 common/lib/X Open:42 text",
               Emit(LogLevel::Error, LogCategory::LockFile, "text"));
}

TEST_F(LoggerDefaultOutput, EveryLevelHasItsName) {
    const char* const names[] = {"emergency", "alert",  "critical", "error",
                                 "warning",   "notice", "info",     "debug"};
    for (int level = 0; level < 8; ++level) {
        ExpectLine(std::string(names[level]) + " 0x8027 common/lib/X Open:42 text",
                   Emit(static_cast<LogLevel>(level), kCategory, "text"));
    }
    for (const int level : {-1, 8, 1000}) {
        ExpectLine("unknown 0x8027 common/lib/X Open:42 text",
                   Emit(static_cast<LogLevel>(level), kCategory, "text"));
    }
}

TEST_F(LoggerDefaultOutput, FinalLineEndOfATextIsNotDoubled) {
    ExpectLine("error 0x8027 common/lib/X Open:42 one\ntwo",
               Emit(LogLevel::Error, kCategory, "one\ntwo\n"));
    ExpectLine("error 0x8027 common/lib/X Open:42 ", Emit(LogLevel::Error, kCategory, ""));
    ExpectLine("error 0x8027 common/lib/X Open:42 ", Emit(LogLevel::Error, kCategory, "\n"));
}

TEST_F(LoggerDefaultOutput, BracesInATextAreText) {
    ExpectLine("error 0x8027 common/lib/X Open:42 \\{name\\} \\{\\} %v",
               Emit(LogLevel::Error, kCategory, "{name} {} %v"));
}

TEST_F(LoggerDefaultOutput, SinkTakesItsPlaceAndAnEmptyOneRestoresIt) {
    {
        const CapturedLog log;
        EXPECT_EQ("", Emit(LogLevel::Error, kCategory, "text"));
        EXPECT_EQ(1U, log.Records().size());
    }
    EXPECT_NE("", Emit(LogLevel::Error, kCategory, "text"));
}

TEST_F(LoggerDefaultOutput, NothingGoesToStandardOutput) {
    testing::internal::CaptureStdout();
    Emit(LogLevel::Error, kCategory, "text");
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

}  // namespace
}  // namespace qel::test
