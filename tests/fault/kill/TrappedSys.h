#pragma once

#include <unistd.h>

#include <csignal>
#include <string>

#include "AccessTrap.h"
#include "Sys.h"

namespace qel::test {

/// The real system calls. Mappings that are made are watched by a trap, and the process can be
/// killed right after a call.
class TrappedSys : public Sys {
public:
    explicit TrappedSys(AccessTrap* trap, std::string killAfter = {})
        : trap_(trap), killAfter_(std::move(killAfter)) {}

private:
    int DoShmOpen(const char* name, int flags, unsigned int mode) override {
        return Done("shm_open", sys_.shm_open(name, flags, mode));
    }
    int DoFtruncate(int fd, long length) override {
        return Done("ftruncate", sys_.ftruncate(fd, length));
    }
    void* DoMmap(void* address, unsigned long length, int protection, int flags, int fd,
                 long offset) override {
        void* const start = sys_.mmap(address, length, protection, flags, fd, offset);
        if (trap_ != nullptr) {
            trap_->Watch(start, length, protection);
        }
        return Done("mmap", start);
    }
    int DoMunmap(void* address, unsigned long length) override {
        if (trap_ != nullptr) {
            trap_->Forget(address);
        }
        return sys_.munmap(address, length);
    }
    int DoClose(int fd) override { return Done("close", sys_.close(fd)); }

    template <typename Result>
    Result Done(const char* call, Result result) const {
        if (killAfter_ == call) {
            ::kill(::getpid(), SIGKILL);
        }
        return result;
    }

    Sys sys_;
    AccessTrap* trap_;
    std::string killAfter_;
};

}  // namespace qel::test
