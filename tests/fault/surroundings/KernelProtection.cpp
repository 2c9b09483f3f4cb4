#include "KernelProtection.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>

namespace qel::test {
namespace {

constexpr std::array<const char*, 4> kFiles = {
    "/proc/sys/fs/protected_symlinks", "/proc/sys/fs/protected_hardlinks",
    "/proc/sys/fs/protected_fifos", "/proc/sys/fs/protected_regular"};

std::string ReadSetting(const char* path) {
    std::array<char, 16> text{};
    const int file = ::open(path, O_RDONLY | O_CLOEXEC);
    const ssize_t length = ::read(file, text.data(), text.size());
    ::close(file);
    return {text.data(), length < 0 ? 0 : static_cast<std::size_t>(length)};
}

bool WriteSetting(const char* path, const std::string& value) {
    const int file = ::open(path, O_WRONLY | O_CLOEXEC);
    const bool written =
        ::write(file, value.data(), value.size()) == static_cast<ssize_t>(value.size());
    ::close(file);
    return written;
}

}  // namespace

KernelProtection::KernelProtection(const Settings& settings) {
    lock_ = ::open(kFiles[0], O_RDONLY | O_CLOEXEC);
    if (lock_ == -1 || ::flock(lock_, LOCK_EX) == -1) {
        return;
    }
    std::array<std::string, kCount> before;
    for (std::size_t i = 0; i < kCount; ++i) {
        before.at(i) = ReadSetting(kFiles.at(i));
        if (!WriteSetting(kFiles.at(i), before.at(i))) {
            return;
        }
    }
    StartGuardian(before);
    const std::array<int, kCount> wanted = {settings.symlinks, settings.hardlinks, settings.fifos,
                                            settings.regular};
    inForce_ = true;
    for (std::size_t i = 0; i < kCount; ++i) {
        inForce_ = WriteSetting(kFiles.at(i), std::to_string(wanted.at(i))) && inForce_;
    }
}

void KernelProtection::StartGuardian(const std::array<std::string, kCount>& before) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) == -1) {
        throw std::runtime_error("no pipe");
    }
    guardian_ = ::fork();
    if (guardian_ == -1) {
        throw std::runtime_error("no process");
    }
    if (guardian_ == 0) {
        ::setsid();  // signals to the test's group do not reach it
        ::close(ends[1]);
        char byte = 0;
        while (::read(ends[0], &byte, 1) == -1 && errno == EINTR) {
        }
        bool restored = true;
        for (std::size_t i = 0; i < kCount; ++i) {
            restored = WriteSetting(kFiles.at(i), before.at(i)) && restored;
        }
        ::_exit(restored ? 0 : 1);
    }
    ::close(ends[0]);
    alive_ = ends[1];
}

KernelProtection::~KernelProtection() {
    if (guardian_ > 0) {
        ::close(alive_);
        while (::waitpid(guardian_, nullptr, 0) == -1 && errno == EINTR) {
        }
    }
    ::close(lock_);
}

}  // namespace qel::test
