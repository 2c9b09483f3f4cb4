#include "Command.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

namespace qel::test {
namespace {

/// A file without a name, to collect output of any length.
int Collector() {
    std::string path = testing::TempDir() + "qev-output-XXXXXX";
    const int fd = mkostemp(path.data(), O_CLOEXEC);
    EXPECT_NE(fd, -1);
    EXPECT_EQ(unlink(path.c_str()), 0);
    return fd;
}

std::string Collected(int fd) {
    std::string text;
    std::array<char, 4096> part{};
    for (off_t offset = 0;; offset = static_cast<off_t>(text.size())) {
        const ssize_t count = pread(fd, part.data(), part.size(), offset);
        if (count <= 0) {
            return text;
        }
        text.append(part.data(), static_cast<std::size_t>(count));
    }
}

void Become(std::vector<char*> argv, const Streams& streams, int out, int err) {
    (void)setpgid(0, 0);
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that is killed leaves nothing running
    const int in = streams.in != -1 ? streams.in : open("/dev/null", O_RDONLY | O_CLOEXEC);
    const bool placed = dup2(in, STDIN_FILENO) != -1 && dup2(out, STDOUT_FILENO) != -1 &&
                        dup2(err, STDERR_FILENO) != -1;
    // A block's memory file is passed on to commands; this one is to begin with nothing.
    (void)close_range(STDERR_FILENO + 1, ~0U, 0);
    // Another user might not be allowed to reach the command itself.
    const bool lowered =
        !streams.withoutPrivileges || geteuid() != 0 ||
        (prctl(PR_CAPBSET_DROP, CAP_CHOWN) == 0 && prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE) == 0 &&
         prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH) == 0 &&
         prctl(PR_CAPBSET_DROP, CAP_SYS_PTRACE) == 0);
    if (placed && lowered) {
        (void)execv(QEV_COMMAND, argv.data());
    }
    _exit(127);
}

}  // namespace

TemporaryFolder::TemporaryFolder() : path_(testing::TempDir() + "qev-test-XXXXXX") {
    EXPECT_NE(mkdtemp(path_.data()), nullptr);
    EXPECT_EQ(chmod(path_.c_str(), 0777), 0);
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

Command::Command(const std::vector<std::string>& arguments, const Streams& streams)
    : out_(Collector()), err_(Collector()) {
    std::vector<std::string> words{"qev"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        Become(argv, streams, streams.out != -1 ? streams.out : out_,
               streams.err != -1 ? streams.err : err_);
    }
    EXPECT_GT(pid_, 0);
    (void)setpgid(pid_, pid_);  // here too: whichever comes first
}

Command::~Command() {
    if (pid_ > 0) {
        (void)kill(pid_, SIGKILL);
        (void)waitpid(pid_, nullptr, 0);
    }
    (void)close(out_);
    (void)close(err_);
}

void Command::Signal(int signal) const {
    EXPECT_EQ(kill(pid_, signal), 0);
}

void Command::SignalGroup(int signal) const {
    EXPECT_EQ(kill(-pid_, signal), 0);
}

bool Command::HasEnded() const {
    siginfo_t info{};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT | WNOHANG), 0);
    return info.si_pid == pid_;
}

CommandResult Command::Wait() {
    int status = 0;
    EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
    pid_ = -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, Collected(out_), Collected(err_)};
}

CommandResult RunQev(const std::vector<std::string>& arguments, const Streams& streams) {
    return Command(arguments, streams).Wait();
}

void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary);
    file << content;
    EXPECT_TRUE(file.flush().good()) << path;
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

bool Exists(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
}

std::string SomeBytes(std::size_t count) {
    std::mt19937 random(static_cast<unsigned>(count));
    std::string bytes(count, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
    return bytes;
}

pid_t ChildNamed(pid_t parent, const std::string& name) {
    pid_t found = 0;
    WaitUntil([&] {
        for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
            const std::string number = entry.path().filename();
            if (number.find_first_not_of("0123456789") != std::string::npos) {
                continue;
            }
            const std::string stat = ReadFile(entry.path() / "stat");
            const std::string start = std::string(number).append(" (").append(name).append(") ");
            if (stat.rfind(start, 0) == 0 &&
                std::atoi(stat.c_str() + start.size() + 2) == parent) {  // behind the state
                found = std::atoi(number.c_str());
                return true;
            }
        }
        return false;
    });
    return found;
}

long Lines(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
}

}  // namespace qel::test
