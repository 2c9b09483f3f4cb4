#include "MatroskaProcess.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>

namespace qel {
namespace {

constexpr const char* kProgram = "qev-matroska";

/// Beside this program where both are built, and where they are installed.
std::string Program() {
    std::error_code error;
    const auto folder = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
    for (const auto& path : {folder / kProgram, folder.parent_path() / "libexec/qev" / kProgram}) {
        if (access(path.c_str(), X_OK) == 0) {
            return path;
        }
    }
    throw std::runtime_error(
        fmt::format("{} is not installed, which Matroska files take: it is built where GStreamer's "
                    "development packages are",
                    kProgram));
}

struct PipeEnds {
    File out;
    File in;
};

PipeEnds MakePipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error(
            fmt::format("cannot make a pipe: {}({})", errno, std::strerror(errno)));
    }
    return {File(ends[0]), File(ends[1])};
}

[[noreturn]] void Become(const std::string& program, std::vector<char*>& argv, int input,
                         int output) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        (void)std::signal(signal, SIG_IGN);  // what it has got is to become a whole file
    }
    (void)std::signal(SIGPIPE, SIG_DFL);
    if (dup2(input, STDIN_FILENO) != -1 && dup2(output, STDOUT_FILENO) != -1) {
        (void)execv(program.c_str(), argv.data());
    }
    _exit(127);
}

}  // namespace

void MatroskaProcess::RequireInstalled() {
    (void)Program();
}

void MatroskaProcess::RequireCaps(const std::string& caps) {
    MatroskaProcess({"check", "--caps", caps}, STDIN_FILENO, STDOUT_FILENO, File()).Finish();
}

MatroskaProcess::MatroskaProcess(const std::vector<std::string>& arguments, int input, int output,
                                 File pipe)
    : pipe_(std::move(pipe)) {
    const std::string program = Program();
    std::vector<std::string> words{kProgram};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        Become(program, argv, input, output);
    }
    if (pid_ == -1) {
        throw std::runtime_error(
            fmt::format("cannot start {}: {}({})", program, errno, std::strerror(errno)));
    }
}

MatroskaProcess MatroskaProcess::Muxer(int output, std::vector<std::string> arguments) {
    PipeEnds pipe = MakePipe();
    arguments.insert(arguments.begin(), "mux");
    return {arguments, pipe.out.Fd(), output, std::move(pipe.in)};
}

MatroskaProcess MatroskaProcess::Demuxer(const std::string& path) {
    PipeEnds pipe = MakePipe();
    return {{"demux", path}, STDIN_FILENO, pipe.in.Fd(), std::move(pipe.out)};
}

MatroskaProcess::~MatroskaProcess() {
    if (pid_ > 0) {
        (void)kill(pid_, SIGKILL);
        (void)waitpid(pid_, nullptr, 0);
    }
}

MatroskaProcess::MatroskaProcess(MatroskaProcess&& other) noexcept
    : pipe_(std::move(other.pipe_)), pid_(std::exchange(other.pid_, -1)) {}

void MatroskaProcess::Write(const ByteSpan& data) {
    for (std::size_t done = 0; done < data.size();) {
        const ssize_t count = write(pipe_.Fd(), data.data() + done, data.size() - done);
        if (count >= 0) {
            done += static_cast<std::size_t>(count);
        } else if (errno != EINTR) {
            const int error = errno;
            Finish();
            throw std::runtime_error(
                fmt::format("cannot write to {}: {}({})", kProgram, error, std::strerror(error)));
        }
    }
}

void MatroskaProcess::Finish() {
    { const File closed = std::move(pipe_); }
    int status = 0;
    while (waitpid(pid_, &status, 0) == -1 && errno == EINTR) {
    }
    pid_ = -1;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error(fmt::format("{} has failed", kProgram));
    }
}

}  // namespace qel
