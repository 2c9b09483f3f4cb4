#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace qel {

/// How a node's process ended.
struct NodeExit {
    std::size_t node;  ///< place in the chain, from 0
    pid_t pid;
    bool killed;  ///< by a signal
    int code;     ///< exit status, or the signal's number

    [[nodiscard]] bool Succeeded() const noexcept { return !killed && code == 0; }

    /// As in "exited with status 3" or "was killed by signal 9 (Killed)".
    [[nodiscard]] std::string Text() const;
};

/// A chain of processes, one for each node, that lives no longer than whoever started it.
///
/// Nodes are forked, not executed anew: each runs its callable in a copy of this process and exits
/// with the callable's result, without running the exit handlers of the parent. A node whose
/// callable throws says so on standard error and exits with `kThrew`. Nodes ignore SIGINT, SIGTERM
/// and SIGHUP, which a terminal sends to the whole group: the parent decides what they mean.
///
/// What a crash leaves: nothing. The kernel kills the nodes when the thread that started them
/// ends, for whatever reason; so that must be a thread that stays.
///
/// Thread use: one thread, and none but it should run when the chain is started, as for any fork.
/// SIGCHLD must not be ignored, or exit statuses are lost.
class NodeChain {
public:
    using Body = std::function<int()>;

    static constexpr int kThrew = 70;

    /// Starts a process for each of `nodes`.
    /// @throws RingError when one cannot be started; those already started are killed
    explicit NodeChain(const std::vector<Body>& nodes);

    /// Kills what still runs, and waits for its end.
    ~NodeChain();

    NodeChain(const NodeChain&) = delete;
    NodeChain& operator=(const NodeChain&) = delete;

    /// Waits until a node ends; each end is reported once.
    /// @return nothing when the time is up, a signal was handled or no node is left
    /// @throws RingError when the wait fails
    [[nodiscard]] std::optional<NodeExit> WaitForExit(std::chrono::milliseconds timeout);

    /// Nodes whose end has not been reported.
    [[nodiscard]] std::size_t Running() const noexcept { return running_.size(); }

    /// Sends `signal` to all nodes that still run; their ends are reported as any.
    void Kill(int signal) const noexcept;

private:
    struct Process {
        std::size_t node;
        pid_t pid;
        int pidFd;  // readable when the process has ended
    };

    void Start(std::size_t node, const Body& body);
    NodeExit Reap(std::size_t position);
    void KillAndReapAll() noexcept;

    std::vector<Process> running_;
};

}  // namespace qel
