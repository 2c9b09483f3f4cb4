#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

#include "IdleStrategy.h"

namespace qel::test {

/// A folder of a test's own, removed with all that is in it.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    [[nodiscard]] std::string Path(const std::string& file) const { return path_ + "/" + file; }
    [[nodiscard]] const std::string& Path() const { return path_; }

private:
    std::string path_;
};

/// How the command ended.
struct CommandResult {
    int status = -1;  ///< exit status; -1 when a signal killed it
    std::string out;  ///< all that it wrote to standard output, unless that was given to it
    std::string err;
};

/// Descriptors that the command gets; -1: an empty input, and outputs that are collected.
struct Streams {
    int in = -1;
    int out = -1;
    int err = -1;
    /// Files' modes and owners, and what processes hide, bind a superuser as well.
    bool withoutPrivileges = false;
};

/// The qev command as a process of its own, in a process group of its own.
class Command {
public:
    explicit Command(const std::vector<std::string>& arguments, const Streams& streams = {});
    ~Command();
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    [[nodiscard]] pid_t Pid() const { return pid_; }

    void Signal(int signal) const;

    /// As a terminal does it.
    void SignalGroup(int signal) const;

    [[nodiscard]] bool HasEnded() const;

    CommandResult Wait();

private:
    pid_t pid_ = -1;
    int out_ = -1;
    int err_ = -1;
};

/// Runs the command to its end.
CommandResult RunQev(const std::vector<std::string>& arguments, const Streams& streams = {});

/// Waits until `condition` holds; the test's own time limit ends it otherwise.
template <typename Condition>
void WaitUntil(const Condition& condition) {
    IdleStrategy idle;
    while (!condition()) {
        idle.Idle();
    }
}

void WriteFile(const std::string& path, const std::string& content);
[[nodiscard]] std::string ReadFile(const std::string& path);
[[nodiscard]] bool Exists(const std::string& path);

/// Bytes that look random and are the same in each run.
[[nodiscard]] std::string SomeBytes(std::size_t count);

/// The child of `parent` that calls itself `name`; waits until it is there.
[[nodiscard]] pid_t ChildNamed(pid_t parent, const std::string& name);

/// Number of line ends in `text`.
[[nodiscard]] long Lines(const std::string& text);

}  // namespace qel::test
