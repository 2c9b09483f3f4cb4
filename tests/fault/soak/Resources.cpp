#include "Resources.h"

#include <malloc.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <stdexcept>

#include "BuildKind.h"

namespace qel::test {
namespace {

constexpr double kWarm = 0.1;
constexpr double kQuarter = 0.25;

std::uint64_t EntriesOf(const char* directory) {
    const std::filesystem::directory_iterator entries(directory);
    return static_cast<std::uint64_t>(std::distance(begin(entries), end(entries)));
}

/// True for a thread that has come to its end: who joins it is let go before /proc forgets it.
bool IsEnding(const std::filesystem::path& task) {
    constexpr int kFlagsAfterName = 7;             // fields of /proc/PID/stat
    constexpr std::uint64_t kEnding = 0x00000004;  // PF_EXITING of the kernel
    std::ifstream stat(task / "stat");
    stat.ignore(std::numeric_limits<std::streamsize>::max(), ')');
    std::string field;
    for (int i = 0; i < kFlagsAfterName; ++i) {
        stat >> field;
    }
    return !stat || (std::stoull(field) & kEnding) != 0;
}

std::uint64_t RunningThreads() {
    std::uint64_t running = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        running += IsEnding(task.path()) ? 0 : 1;
    }
    return running;
}

/// Mappings of files, shared memory included. Of others the heap is one, that splits as it grows.
std::uint64_t MappedFiles() {
    std::ifstream maps("/proc/self/maps");
    std::uint64_t files = 0;
    for (std::string line; std::getline(maps, line);) {
        files += line.find('/') == std::string::npos ? 0 : 1;
    }
    return files;
}

/// A figure of /proc/self/smaps_rollup, where the page tables themselves are counted: the counters
/// of /proc/self/statm lag behind.
std::uint64_t MemoryOf(const std::string& kind) {
    std::ifstream file("/proc/self/smaps_rollup");
    for (std::string word; file >> word;) {
        std::uint64_t kibibytes = 0;
        if (word == kind + ":" && file >> kibibytes) {
            return kibibytes * 1024;
        }
    }
    throw std::runtime_error("/proc/self/smaps_rollup does not tell " + kind);
}

void RequireSame(const char* what, std::uint64_t before, std::uint64_t now) {
    if (before != now) {
        throw std::runtime_error(std::string(what) + ": " + std::to_string(before) +
                                 " after the warm-up, now " + std::to_string(now));
    }
}

void RequireNoGrowth(const char* what, std::uint64_t before, std::uint64_t now,
                     std::uint64_t bound) {
    if (now > before + bound) {
        throw std::runtime_error(std::string(what) + ": " + std::to_string(before) +
                                 " bytes at a quarter of the run, now " + std::to_string(now));
    }
}

}  // namespace

Resources MeasureResources() {
    Resources resources;
    resources.descriptors = EntriesOf("/proc/self/fd");
    resources.mappings = MappedFiles();
    resources.threads = RunningThreads();
    resources.resident = MemoryOf("Rss");
    resources.own = MemoryOf("Anonymous");
    resources.heap = ::mallinfo2().uordblks;
    return resources;
}

void ResourceWatch::Take(double done) {
    last_ = MeasureResources();
    if (done >= kWarm && !isWarm_) {
        isWarm_ = true;
        warm_ = last_;
    }
    if (done >= kQuarter && !isAtQuarter_) {
        isAtQuarter_ = true;
        atQuarter_ = last_;
        return;
    }
    if (!isWarm_) {
        return;
    }
    RequireSame("descriptors", warm_.descriptors, last_.descriptors);
    RequireSame("threads", warm_.threads, last_.threads);
    RequireSame("mappings", warm_.mappings, last_.mappings);
    judged_ = isAtQuarter_;
    if (judged_ && !kSlowBuild) {  // a sanitizer keeps books of its own, and what was freed
        RequireNoGrowth("resident memory", atQuarter_.resident, last_.resident, kResidentBound);
        RequireNoGrowth("memory of its own", atQuarter_.own, last_.own, kOwnBound);
        RequireNoGrowth("heap", atQuarter_.heap, last_.heap, kHeapBound);
    }
}

}  // namespace qel::test
