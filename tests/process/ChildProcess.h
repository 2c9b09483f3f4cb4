#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace qel::test {

using Arguments = std::vector<std::string>;
/// What a child process does in place of the tests; returns its exit status.
using Role = std::function<int(const Arguments&)>;

/// The roles that this program can be re-executed in, by name.
std::map<std::string, Role>& Roles();

/// Registers a role while the program starts.
struct RegisterRole {
    RegisterRole(const std::string& name, Role role) { Roles()[name] = std::move(role); }
};

/// To be called first in main: if the program was started in a role, plays it and ends. An alarm
/// ends a role that hangs, and the end of the parent ends it too.
void PlayRoleIfAsked(int argc, char** argv);

/// This program once more, in another process and in a role. Ended with the object.
///
/// Its standard input, output and error are pipes to this process.
class ChildProcess {
public:
    explicit ChildProcess(const std::string& role, const Arguments& arguments = {});
    ~ChildProcess();
    ChildProcess(ChildProcess&& other) noexcept;
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    [[nodiscard]] pid_t Pid() const { return pid_; }

    /// Sends one line.
    void Tell(const std::string& line) const;
    /// Waits for one line, without its end; what there is when the child ends instead.
    [[nodiscard]] std::string Hear() const;
    /// What it writes to standard error until it ends.
    [[nodiscard]] std::string Errors() const;

    /// Ends it without a chance to clean up.
    void Kill();
    /// Waits for its end: its exit status, or minus the signal that ended it.
    int Wait();

    /// Waits for all; as soon as one fails, ends the others, which may wait for it. True if none
    /// failed.
    static bool AllSucceed(std::vector<ChildProcess>& children);

private:
    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    int errors_ = -1;
};

}  // namespace qel::test
