#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <vector>

#include "ProcessSurvey.h"

namespace qel {

/// Tells whether processes have run since a moment. Between two accesses to a ring lie a few
/// instructions and no system call: a process that has run since, or sleeps, is not in the middle
/// of a step that it was in then.
class StepWatch {
public:
    enum class Progress {
        Gone,     ///< the process has ended
        Made,     ///< each of its threads has run, or waits for something
        Stopped,  ///< by a signal, by a debugger, or as a group of processes
        None,     ///< a thread is ready to run, and was not run
    };

    /// From now on.
    explicit StepWatch(const std::vector<ObjectUser>& users);

    [[nodiscard]] Progress Since(pid_t pid) const;

private:
    struct ThreadLook {
        char state = '?';
        std::uint64_t nanoseconds = 0;  ///< that it has run
    };
    using Threads = std::map<pid_t, ThreadLook>;
    static Threads ThreadsOf(pid_t pid);

    std::map<pid_t, Threads> first_;
};

}  // namespace qel
