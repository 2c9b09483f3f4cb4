#pragma once

#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>

#include "CapturedLog.h"
#include "CapturedOutput.h"
#include "NamedSemaphore.h"
#include "OpenRing.h"
#include "SharedMemLibFactory.h"
#include "SharedMemoryBlockReader.h"
#include "SharedMemoryBlockWriter.h"
#include "SystemSemaphore.h"

// One attempt at each construction that the libraries offer. Each returns "works", or all that the
// client learns of the failure; nothing is kept.
namespace qel::test {

inline constexpr std::uint64_t kRingSize = 100000;
inline constexpr std::uint64_t kBlockSize = 1000;

/// What `action` says on its way: its exception, or "works".
template <typename Action>
std::string Result(const Action& action) {
    try {
        action();
    } catch (const std::exception& failure) {
        return failure.what();
    }
    return "works";
}

/// The library's ring: "works", or status, line on standard output and log records.
inline std::string TryRing(const std::string& name, std::uint64_t size = kRingSize) {
    const CapturedLog log;
    const CapturedOutput output;
    const auto result = SharedMemLibFactory::Create()->GetSharedPacketBuffer({name, size, 0});
    if (result.status == SMStatusCode::SUCCESS) {
        return "works";
    }
    std::ostringstream text;
    text << result.status << "; " << output.Text();
    for (const LogRecord& record : log.Records()) {
        text << record.text;
    }
    return text.str();
}

/// What TryRing returns when `step` fails with `error`.
inline std::string RingFailure(const std::string& name, const std::string& exception,
                               const std::string& step, int error) {
    return "SHARED_MEMORY_FAILURE; Trouble creating shared memory invalid parameter: Exception: " +
           exception + "\n" + name + " " + step + " - " + std::to_string(error);
}
inline std::string RingNotOpened(const std::string& name, int error) {
    const char* const text = "Problem Creating Shared memory segment";
    return RingFailure(name, text, text, error);
}
inline std::string RingNotSized(const std::string& name, int error) {
    const char* const text = "Problem Allocating Shared Memory";
    return RingFailure(name, text, text, error);
}
inline std::string RingNotMapped(const std::string& name, int error) {
    const char* const text = "Unable to map shared memory";
    return RingFailure(name, text, text, error);
}

/// The ring as PipelineKit opens it.
inline std::string TryOpenRing(const std::string& name, std::uint64_t size = kRingSize) {
    const CapturedLog log;
    const CapturedOutput output;  // the library's line, which the exception stands for
    return Result([&] { (void)OpenRing({name, size, 0}); });
}

inline std::string TryReader(const std::string& name) {
    const CapturedLog log;
    return Result([&] { const SharedMemoryBlockReader reader(name); });
}

inline std::string TryWriter(const std::string& name, std::uint64_t size = kBlockSize) {
    const CapturedLog log;
    return Result([&] { const SharedMemoryBlockWriter writer(name, size); });
}

/// The library's semaphore: what it says on standard output comes before the exception.
inline std::string TrySemaphore(const std::string& name) {
    const CapturedOutput output;
    const std::string result = Result([&] { const NamedSemaphore semaphore(name, 0); });
    return output.Text() + result;
}

/// The semaphore `/name` as PipelineKit opens it.
inline std::string TrySystemSemaphore(const std::string& name) {
    return Result([&] {
        const SystemSemaphore semaphore(name.substr(1), SystemSemaphore::IfMissing::Create);
    });
}

/// "13(Permission denied)", as PipelineKit and the blocks show an error.
inline std::string Errno(int error) {
    return std::to_string(error) + "(" + std::strerror(error) + ")";
}

}  // namespace qel::test
