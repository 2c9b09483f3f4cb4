#include "ChildProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace qel::test {
namespace {

constexpr char kRoleOption[] = "--role";
constexpr unsigned kWatchdogSeconds = 200;

struct Pipe {
    Pipe() {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw std::system_error(errno, std::generic_category(), "pipe2");
        }
        from = ends[0];
        to = ends[1];
    }
    int from;
    int to;
};

int StatusOf(int waited) {
    return WIFSIGNALED(waited) ? -WTERMSIG(waited) : WEXITSTATUS(waited);
}

}  // namespace

std::map<std::string, Role>& Roles() {
    static std::map<std::string, Role> roles;
    return roles;
}

void PlayRoleIfAsked(int argc, char** argv) {
    if (argc < 3 || std::strcmp(argv[1], kRoleOption) != 0) {
        ::signal(SIGPIPE, SIG_IGN);  // a child that has ended is told by its status
        return;
    }
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::alarm(kWatchdogSeconds);
    int status = EXIT_FAILURE;
    try {
        status = Roles().at(argv[2])(Arguments(argv + 3, argv + argc));
    } catch (const std::exception& error) {
        std::cerr << argv[2] << ": " << error.what() << '\n';
    }
    std::exit(status);
}

ChildProcess::ChildProcess(const std::string& role, const Arguments& arguments) {
    std::vector<std::string> words{"/proc/self/exe", kRoleOption, role};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (auto& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);

    const Pipe input;
    const Pipe output;
    const Pipe errors;
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, input.from, STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, output.to, STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, errors.to, STDERR_FILENO);
    const int error =
        ::posix_spawn(&pid_, words.front().c_str(), &actions, nullptr, pointers.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(input.from);
    ::close(output.to);
    ::close(errors.to);
    input_ = input.to;
    output_ = output.from;
    errors_ = errors.from;
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), "posix_spawn");
    }
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)),
      input_(std::exchange(other.input_, -1)),
      output_(std::exchange(other.output_, -1)),
      errors_(std::exchange(other.errors_, -1)) {}

ChildProcess::~ChildProcess() {
    if (pid_ != -1) {
        Kill();
        Wait();
    }
    for (const int end : {input_, output_, errors_}) {
        if (end != -1) {
            ::close(end);
        }
    }
}

void ChildProcess::Tell(const std::string& line) const {
    const std::string text = line + "\n";
    // A child that is gone does not listen; its status tells.
    (void)!::write(input_, text.data(), text.size());
}

std::string ChildProcess::Hear() const {
    std::string line;
    char letter = 0;
    while (::read(output_, &letter, 1) == 1 && letter != '\n') {
        line += letter;
    }
    return line;
}

std::string ChildProcess::Errors() const {
    std::string text;
    std::array<char, 4096> part{};
    ssize_t length = 0;
    while ((length = ::read(errors_, part.data(), part.size())) > 0) {
        text.append(part.data(), static_cast<std::size_t>(length));
    }
    return text;
}

void ChildProcess::Kill() {
    ::kill(pid_, SIGKILL);
}

int ChildProcess::Wait() {
    int waited = 0;
    while (::waitpid(pid_, &waited, 0) == -1 && errno == EINTR) {
    }
    pid_ = -1;
    return StatusOf(waited);
}

bool ChildProcess::AllSucceed(std::vector<ChildProcess>& children) {
    bool succeed = true;
    for (std::size_t left = children.size(); left > 0; --left) {
        int waited = 0;
        const pid_t pid = ::waitpid(-1, &waited, 0);
        const auto ended = std::find_if(children.begin(), children.end(),
                                        [pid](const auto& child) { return child.pid_ == pid; });
        if (ended == children.end()) {
            throw std::runtime_error("a process that is none of these has ended");
        }
        ended->pid_ = -1;
        if (StatusOf(waited) == EXIT_SUCCESS) {
            continue;
        }
        std::cerr << "child " << ended - children.begin() << " ended with " << StatusOf(waited)
                  << ": " << ended->Errors() << '\n';
        if (succeed) {
            for (auto& child : children) {
                if (child.pid_ != -1) {
                    child.Kill();
                }
            }
        }
        succeed = false;
    }
    return succeed;
}

}  // namespace qel::test
