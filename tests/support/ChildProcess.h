#pragma once

#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

/// Of a coverage build whose link asks for it: writes what has been reached to disk, which a
/// process that leaves by `_exit` would not do.
extern "C" void __gcov_dump() __attribute__((weak));  // NOLINT(bugprone-reserved-identifier)

namespace qel::test {

/// Both ends of a conversation between two processes, one message at a time.
class Conversation {
public:
    Conversation(int in, int out) : in_(in), out_(out) {}
    ~Conversation() {
        ::close(in_);
        ::close(out_);
    }
    Conversation(const Conversation&) = delete;
    Conversation& operator=(const Conversation&) = delete;

    void Say(const std::string& text) const {
        const std::string message = text + '\0';
        if (::write(out_, message.data(), message.size()) != static_cast<ssize_t>(message.size())) {
            throw std::runtime_error("the other process does not listen");
        }
    }
    /// Waits for a message; empty if the other process has ended.
    [[nodiscard]] std::string Hear() const {
        std::string text;
        char byte = 0;
        while (::read(in_, &byte, 1) == 1 && byte != '\0') {
            text += byte;
        }
        return text;
    }

private:
    int in_;
    int out_;
};

/// A forked process that runs `body(Conversation&) -> int` and ends with the result as its exit
/// code. It is killed at the end of this object's life if it still runs, and with its parent.
class ChildProcess {
public:
    static constexpr int kThrew = 120;  ///< exit code of a body that has thrown

    template <typename Body>
    explicit ChildProcess(Body body) {
        std::array<int, 2> down{};
        std::array<int, 2> up{};
        if (::pipe(down.data()) == -1 || ::pipe(up.data()) == -1) {
            throw std::runtime_error("no pipe");
        }
        std::fflush(nullptr);
        pid_ = ::fork();
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::close(down[1]);
            ::close(up[0]);
            const int code = Run(body, down[0], up[1]);
            if (&__gcov_dump != nullptr) {
                __gcov_dump();
            }
            ::_exit(code);
        }
        ::close(down[0]);
        ::close(up[1]);
        conversation_.emplace(up[0], down[1]);
        if (pid_ == -1) {
            throw std::runtime_error("no process");
        }
    }
    ~ChildProcess() {
        Kill();
        (void)Wait();
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    [[nodiscard]] pid_t Pid() const { return pid_; }
    void Say(const std::string& text) const { conversation_->Say(text); }
    [[nodiscard]] std::string Hear() const { return conversation_->Hear(); }
    void Kill() const {
        if (running_) {
            ::kill(pid_, SIGKILL);
        }
    }
    /// Waits for its end; its status as waitpid gives it.
    int Wait() {
        if (running_) {
            while (::waitpid(pid_, &status_, 0) == -1 && errno == EINTR) {
            }
            running_ = false;
        }
        return status_;
    }
    /// Waits for its end; its exit code, -1 if it was killed.
    int ExitCode() {
        const int status = Wait();
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    template <typename Body>
    static int Run(Body& body, int in, int out) noexcept {
        const Conversation conversation(in, out);
        try {
            return body(conversation);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "child process: %s\n", error.what());
            return kThrew;
        }
    }

    pid_t pid_ = -1;
    bool running_ = true;
    int status_ = 0;
    std::optional<Conversation> conversation_;
};

/// Runs `body` in a forked process and returns what it says, or nothing if it fails.
template <typename Body>
std::string InChild(Body body) {
    ChildProcess child([body](const Conversation& parent) {
        parent.Say(body());
        return 0;
    });
    std::string said = child.Hear();
    return child.ExitCode() == 0 ? said : std::string();
}

}  // namespace qel::test
