#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "LogClient.h"

namespace qel::lock_file_log {

/// Writes `text` to the log, as coming from the lock file's `operation`.
inline void Write(LogLevel level, std::string_view operation, unsigned line,
                  std::string_view text) {
    if (LogClient::LevelIsEnabled(level)) {
        LogClient("common/lib/LockFile/include/LockFileImpl", operation, line, level,
                  LogCategory::LockFile)
            << text;
    }
}

/// For what the operation survives.
inline void Warn(std::string_view operation, unsigned line, const std::string& text) {
    Write(LogLevel::Warning, operation, line, text);
}

/// For what ends the operation: the text goes to the log and into the exception.
[[noreturn]] inline void Fail(std::string_view operation, unsigned line, const std::string& text) {
    Write(LogLevel::Error, operation, line, text);
    throw std::runtime_error(text);
}

}  // namespace qel::lock_file_log
