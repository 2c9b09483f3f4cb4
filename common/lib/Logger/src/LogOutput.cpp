#include "LogOutput.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <array>
#include <memory>
#include <new>
#include <utility>

namespace qel {
namespace {

struct LevelForm {
    const char* name;
    spdlog::level::level_enum rank;
};

LevelForm FormOf(LogLevel level) {
    static constexpr std::array<LevelForm, 8> kForms{{{"emergency", spdlog::level::critical},
                                                      {"alert", spdlog::level::critical},
                                                      {"critical", spdlog::level::critical},
                                                      {"error", spdlog::level::err},
                                                      {"warning", spdlog::level::warn},
                                                      {"notice", spdlog::level::info},
                                                      {"info", spdlog::level::info},
                                                      {"debug", spdlog::level::debug}}};
    const auto index = static_cast<std::size_t>(level);
    return index < kForms.size() ? kForms[index] : LevelForm{"unknown", spdlog::level::info};
}

// A logger of our own, outside spdlog's registry, so that the host's use of spdlog is untouched.
spdlog::logger& StandardError() {
    static auto* const logger = [] {
        auto made = std::make_unique<spdlog::logger>(
            "qev", std::make_shared<spdlog::sinks::stderr_sink_mt>());
        made->set_level(spdlog::level::trace);
        made->flush_on(spdlog::level::trace);
        made->set_pattern("%Y-%m-%d %H:%M:%S.%e %v");
        return made.release();
    }();
    return *logger;
}

void WriteToStandardError(const LogRecord& record) {
    std::string_view text = record.text;
    if (!text.empty() && text.back() == '\n') {
        text.remove_suffix(1);  // the line end comes from the pattern
    }
    const LevelForm form = FormOf(record.level);
    const auto category = static_cast<std::uint32_t>(record.category);
    StandardError().log(record.time, spdlog::source_loc{}, form.rank,
                        fmt::format("{} {:#06x} {} {}:{} {}", form.name, category,
                                    record.sourcePath, record.operation, record.line, text));
}

}  // namespace

LogOutput& LogOutput::Instance() noexcept {
    alignas(LogOutput) static std::array<unsigned char, sizeof(LogOutput)> storage;
    static auto* const instance = ::new (storage.data()) LogOutput;  // never destroyed
    return *instance;
}

void LogOutput::SetSink(LogControl::Sink sink) {
    const std::lock_guard<std::mutex> lock(sinkMutex_);
    sink_ = std::move(sink);
}

void LogOutput::Emit(const LogRecord& record) {
    const std::lock_guard<std::mutex> lock(sinkMutex_);
    if (sink_) {
        sink_(record);
    } else {
        WriteToStandardError(record);
    }
}

}  // namespace qel
