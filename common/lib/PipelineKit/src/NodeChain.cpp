#include "NodeChain.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <iostream>

#include "RingError.h"

namespace qel {
namespace {

void FlushStandardStreams() {
    std::cout.flush();
    std::cerr.flush();
    (void)std::fflush(nullptr);
}

int RunGuarded(const NodeChain::Body& body) noexcept {
    try {
        const int status = body();
        FlushStandardStreams();
        return status;
    } catch (const std::exception& failure) {
        (void)std::fprintf(stderr, "node failed: %s\n", failure.what());
    } catch (...) {
        (void)std::fprintf(stderr, "node failed\n");
    }
    return NodeChain::kThrew;
}

[[noreturn]] void LiveAsNode(const NodeChain::Body& body, pid_t parent) noexcept {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        (void)std::signal(signal, SIG_IGN);
    }
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(NodeChain::kThrew);  // the parent ended before the kernel knew what to do then
    }
    _exit(RunGuarded(body));
}

NodeExit ExitFrom(std::size_t node, pid_t pid, int status) {
    if (WIFSIGNALED(status)) {
        return {node, pid, true, WTERMSIG(status)};
    }
    return {node, pid, false, WEXITSTATUS(status)};
}

/// The wrapper in the C library's headers cannot be linked to C++ before version 2.37.
int OpenPidFd(pid_t pid) noexcept {
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

/// Waits for the end of `pid`; its raw status.
int WaitFor(pid_t pid) noexcept {
    int status = 0;
    while (waitpid(pid, &status, 0) == -1) {
        if (errno != EINTR) {
            return W_EXITCODE(NodeChain::kThrew, 0);  // somebody else has taken the status
        }
    }
    return status;
}

}  // namespace

std::string NodeExit::Text() const {
    if (killed) {
        return "was killed by signal " + std::to_string(code) + " (" + strsignal(code) + ")";
    }
    return "exited with status " + std::to_string(code);
}

NodeChain::NodeChain(const std::vector<Body>& nodes) {
    running_.reserve(nodes.size());
    FlushStandardStreams();  // or each node would write what is buffered once more
    try {
        for (std::size_t node = 0; node < nodes.size(); ++node) {
            Start(node, nodes[node]);
        }
    } catch (...) {
        KillAndReapAll();
        throw;
    }
}

NodeChain::~NodeChain() {
    KillAndReapAll();
}

void NodeChain::Start(std::size_t node, const Body& body) {
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == -1) {
        throw RingError("cannot start node " + std::to_string(node), errno);
    }
    if (pid == 0) {
        LiveAsNode(body, parent);
    }
    running_.push_back({node, pid, OpenPidFd(pid)});
    if (running_.back().pidFd == -1) {
        throw RingError("cannot watch node " + std::to_string(node), errno);
    }
}

std::optional<NodeExit> NodeChain::WaitForExit(std::chrono::milliseconds timeout) {
    if (running_.empty()) {
        return std::nullopt;
    }
    std::vector<pollfd> watched;
    watched.reserve(running_.size());
    for (const Process& process : running_) {
        watched.push_back({process.pidFd, POLLIN, 0});
    }
    if (poll(watched.data(), watched.size(), static_cast<int>(timeout.count())) == -1) {
        if (errno == EINTR) {
            return std::nullopt;
        }
        throw RingError("cannot wait for the nodes", errno);
    }
    for (std::size_t position = 0; position < watched.size(); ++position) {
        if (watched[position].revents != 0) {
            return Reap(position);
        }
    }
    return std::nullopt;
}

NodeExit NodeChain::Reap(std::size_t position) {
    const Process process = running_[position];
    const int status = WaitFor(process.pid);
    (void)close(process.pidFd);
    running_.erase(running_.begin() + static_cast<std::ptrdiff_t>(position));
    return ExitFrom(process.node, process.pid, status);
}

void NodeChain::Kill(int signal) const noexcept {
    for (const Process& process : running_) {
        (void)kill(process.pid, signal);  // not reaped yet, so the number is still its own
    }
}

void NodeChain::KillAndReapAll() noexcept {
    Kill(SIGKILL);
    for (const Process& process : running_) {
        (void)WaitFor(process.pid);
        if (process.pidFd != -1) {
            (void)close(process.pidFd);
        }
    }
    running_.clear();
}

}  // namespace qel
