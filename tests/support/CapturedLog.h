#pragma once

#include <vector>

#include "LogControl.h"

namespace qel::test {

/// Keeps all log records of the process for as long as it lives.
class CapturedLog {
public:
    explicit CapturedLog(LogLevel threshold = LogLevel::Warning)
        : thresholdBefore_(LogControl::Threshold()) {
        LogControl::SetThreshold(threshold);
        LogControl::SetSink([this](const LogRecord& record) { records_.push_back(record); });
    }
    ~CapturedLog() {
        LogControl::SetSink({});
        LogControl::SetThreshold(thresholdBefore_);
    }
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    [[nodiscard]] const std::vector<LogRecord>& Records() const { return records_; }
    void Forget() { records_.clear(); }

private:
    LogLevel thresholdBefore_;
    std::vector<LogRecord> records_;
};

}  // namespace qel::test
