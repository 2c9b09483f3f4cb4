#include "LogClient.h"

#include <sstream>
#include <utility>

#include "LogOutput.h"

namespace qel {

class LogClient::Impl {
public:
    LogRecord record;
    std::ostringstream stream;
};

bool LogClient::LevelIsEnabled(LogLevel level) noexcept {
    return level <= LogOutput::Instance().Threshold();
}

LogClient::LogClient(std::string_view sourcePath, std::string_view operation, unsigned line,
                     LogLevel level, LogCategory category)
    : impl_(std::make_unique<Impl>()) {
    impl_->record.time = std::chrono::system_clock::now();
    impl_->record.level = level;
    impl_->record.category = category;
    impl_->record.sourcePath = sourcePath;
    impl_->record.operation = operation;
    impl_->record.line = line;
}

LogClient::~LogClient() {
    try {
        impl_->record.text = impl_->stream.str();
        LogOutput::Instance().Emit(impl_->record);
    } catch (...) {
        // A destructor never throws, and a failed log record has nowhere to be reported.
        return;
    }
}

std::ostream& LogClient::Stream() noexcept {
    return impl_->stream;
}

}  // namespace qel
