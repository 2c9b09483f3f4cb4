#pragma once

#include <atomic>
#include <mutex>

#include "LogControl.h"

namespace qel {

/// The process's one log output: threshold and sink.
///
/// Thread use: free. The threshold is an atomic of its own, so that a disabled level costs one
/// load; the mutex orders the sink's replacement and its calls.
class LogOutput {
public:
    /// Lives until the process ends, so that destructors of static objects can still log.
    static LogOutput& Instance() noexcept;

    void SetThreshold(LogLevel level) noexcept { threshold_.store(level); }
    [[nodiscard]] LogLevel Threshold() const noexcept { return threshold_.load(); }
    void SetSink(LogControl::Sink sink);
    void Emit(const LogRecord& record);

private:
    std::atomic<LogLevel> threshold_{LogLevel::Warning};
    std::mutex sinkMutex_;
    LogControl::Sink sink_;
};

}  // namespace qel
