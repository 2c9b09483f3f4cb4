#pragma once

namespace qel {

/// Severity of a log record. The numbers rank as in syslog: the lower, the graver.
enum class LogLevel : int {
    Emergency = 0,
    Alert = 1,
    Critical = 2,
    Error = 3,
    Warning = 4,
    Notice = 5,
    Info = 6,
    Debug = 7,
};

}  // namespace qel
