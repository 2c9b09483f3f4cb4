#include "LogControl.h"

#include <utility>

#include "LogOutput.h"

namespace qel {

void LogControl::SetThreshold(LogLevel level) noexcept {
    LogOutput::Instance().SetThreshold(level);
}

LogLevel LogControl::Threshold() noexcept {
    return LogOutput::Instance().Threshold();
}

void LogControl::SetSink(Sink sink) {
    LogOutput::Instance().SetSink(std::move(sink));
}

}  // namespace qel
