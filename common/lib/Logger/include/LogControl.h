#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "LogCategory.h"
#include "LogLevel.h"
#include "QevExport.h"

namespace qel {

/// A finished log record as a sink receives it.
struct LogRecord {
    std::chrono::system_clock::time_point time;
    LogLevel level;
    LogCategory category;
    std::string sourcePath;
    std::string operation;
    unsigned line;
    std::string text;
};

/// Where log records go and which are wanted: the host program's side of the logger.
///
/// Thread use: every operation may be called by any thread at any time. A sink is called by one
/// thread at a time and must not log or set another sink itself. An exception that leaves a sink is
/// swallowed with the record.
class QEV_EXPORT LogControl {
public:
    using Sink = std::function<void(const LogRecord&)>;

    /// Emits records of `level` and graver; before the first call that is `LogLevel::Warning`.
    static void SetThreshold(LogLevel level) noexcept;

    /// The graveness down to which records are emitted.
    [[nodiscard]] static LogLevel Threshold() noexcept;

    /// Sends all further records to `sink`; an empty one restores the default, a line on standard
    /// error.
    static void SetSink(Sink sink);
};

}  // namespace qel
