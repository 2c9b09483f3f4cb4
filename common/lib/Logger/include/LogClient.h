#pragma once

#include <memory>
#include <ostream>
#include <string_view>

#include "LogCategory.h"
#include "LogLevel.h"
#include "QevExport.h"

namespace qel {

/// One log record in the making: text and numbers are streamed in, and the record is emitted when
/// the object is destroyed.
///
/// Ask `LevelIsEnabled` first and build no record when it says no:
/// @code
/// if (LogClient::LevelIsEnabled(level)) {
///     LogClient(path, "OpenShm", line, level, category) << name << " refused - " << errno;
/// }
/// @endcode
///
/// Thread use: any number of threads may each build records of their own; one record belongs to
/// one thread. Where records go is the host program's choice, see LogControl.h.
class QEV_EXPORT LogClient {
public:
    /// True if records of `level` are emitted at present.
    [[nodiscard]] static bool LevelIsEnabled(LogLevel level) noexcept;

    /// Starts a record. The texts are copied.
    /// @param sourcePath  source file from "common/lib/" on, without extension
    /// @param operation   unqualified name of the operation that reports
    /// @param line        source line of the report
    LogClient(std::string_view sourcePath, std::string_view operation, unsigned line,
              LogLevel level, LogCategory category);

    /// Emits the record. Never throws: a record that cannot be written is lost.
    ~LogClient();

    LogClient(const LogClient&) = delete;
    LogClient& operator=(const LogClient&) = delete;

    /// Appends `value` in its stream form.
    template <typename T>
    LogClient& operator<<(const T& value) {
        Stream() << value;
        return *this;
    }

private:
    std::ostream& Stream() noexcept;

    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qel
