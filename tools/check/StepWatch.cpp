#include "StepWatch.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "FileText.h"

namespace qel {
namespace {

namespace fs = std::filesystem;

/// True if the control group of the process is frozen, whose threads seem to sleep.
bool IsFrozen(pid_t pid) {
    const std::string groups = FileText(fs::path("/proc") / std::to_string(pid) / "cgroup");
    constexpr const char* kUnified = "0::";
    const auto start = groups.find(kUnified);
    if (start == std::string::npos) {
        return false;
    }
    const auto from = start + std::string(kUnified).size();
    const std::string group = groups.substr(from, groups.find('\n', from) - from);
    return FileText("/sys/fs/cgroup" + group + "/cgroup.events").find("frozen 1") !=
           std::string::npos;
}

}  // namespace

StepWatch::StepWatch(const std::vector<ObjectUser>& users) {
    for (const ObjectUser& user : users) {
        first_.emplace(user.pid, ThreadsOf(user.pid));
    }
}

StepWatch::Threads StepWatch::ThreadsOf(pid_t pid) {
    Threads threads;
    std::error_code error;
    const fs::path folder = fs::path("/proc") / std::to_string(pid) / "task";
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        ThreadLook look;
        const std::string stat = FileText(entry->path() / "stat");
        if (const auto name = stat.rfind(") "); name != std::string::npos) {
            look.state = stat[std::min(name + 2, stat.size() - 1)];
        }
        std::ifstream(entry->path() / "schedstat") >> look.nanoseconds;
        threads.emplace(static_cast<pid_t>(std::stol("0" + entry->path().filename().native())),
                        look);
    }
    return threads;
}

StepWatch::Progress StepWatch::Since(pid_t pid) const {
    constexpr std::uint64_t kEnough = 1'000'000;  // nanoseconds
    const auto first = first_.find(pid);
    const Threads now = ThreadsOf(pid);
    if (now.empty() || first == first_.end()) {
        return Progress::Gone;
    }
    const bool isFrozen = IsFrozen(pid);
    Progress progress = Progress::Made;
    for (const auto& [thread, look] : now) {
        const auto before = first->second.find(thread);
        const bool hasRun = before == first->second.end() ||
                            look.nanoseconds >= before->second.nanoseconds + kEnough;
        if (hasRun) {
            continue;
        }
        if (isFrozen || look.state == 'T' || look.state == 't') {
            return Progress::Stopped;
        }
        if (look.state != 'S' && look.state != 'Z' && look.state != 'X') {
            progress = Progress::None;
        }
    }
    return progress;
}

}  // namespace qel
