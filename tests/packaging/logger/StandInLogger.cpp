// A logger of somebody else, written against LogClient.h alone: it takes the place of the one that
// comes with the library and writes each record as one line on standard output.

#include <iostream>
#include <sstream>
#include <string>

#include "LogClient.h"

namespace qel {

class LogClient::Impl {
public:
    std::ostringstream text;
};

bool LogClient::LevelIsEnabled(LogLevel level) noexcept {
    return level == LogLevel::Critical;
}

LogClient::LogClient(std::string_view sourcePath, std::string_view operation, unsigned line,
                     LogLevel level, LogCategory category)
    : impl_(std::make_unique<Impl>()) {
    impl_->text << "stand-in|" << sourcePath << '|' << operation << '|' << line << '|'
                << static_cast<int>(level) << '|' << static_cast<unsigned>(category) << '|';
}

LogClient::~LogClient() {
    std::cout << impl_->text.str() << '\n';
}

std::ostream& LogClient::Stream() noexcept {
    return impl_->text;
}

}  // namespace qel
