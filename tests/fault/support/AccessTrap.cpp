#include "AccessTrap.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <stdexcept>

namespace qel::test {
namespace {

#if defined(__x86_64__)
constexpr bool kHasTrapFlag = true;
constexpr greg_t kTrapFlag = 0x100;
constexpr greg_t kWriteFault = 2;

greg_t& Flags(void* context) {
    return static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL];
}
bool IsWriteFault(void* context) {
    return (static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_ERR] & kWriteFault) != 0;
}
void StepOnce(void* context) {
    Flags(context) |= kTrapFlag;
}
void StepNoMore(void* context) {
    Flags(context) &= ~kTrapFlag;
}
#else
constexpr bool kHasTrapFlag = false;

bool IsWriteFault(void* /*context*/) {
    return false;
}
void StepOnce(void* /*context*/) {}
void StepNoMore(void* /*context*/) {}
#endif

AccessTrap* current = nullptr;
struct sigaction faultsBefore;
struct sigaction trapsBefore;

void OnFault(int signal, siginfo_t* info, void* context) {
    const int error = errno;
    if (current != nullptr && current->NoteFault(info->si_addr, IsWriteFault(context))) {
        StepOnce(context);
    } else {
        ::sigaction(signal, &faultsBefore, nullptr);  // the instruction faults again, for good
    }
    errno = error;
}

void OnTrap(int /*signal*/, siginfo_t* /*info*/, void* context) {
    const int error = errno;
    StepNoMore(context);
    if (current != nullptr) {
        current->NoteDone();
    }
    errno = error;
}

void KillThisProcess(void* /*argument*/) {
    ::kill(::getpid(), SIGKILL);
}

/// Not mprotect itself, which a test may have replaced.
void SetProtection(void* start, std::size_t length, int protection) noexcept {
    (void)::syscall(SYS_mprotect, start, length, protection);
}

constexpr int kTrapsWork = 17;

/// Makes three accesses under a trap; exit code of the process that does so.
int TryTraps() {
    constexpr std::size_t kLength = 4096;
    void* const start =
        ::mmap(nullptr, kLength, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (start == MAP_FAILED) {
        return 1;
    }
    static AccessTrap::Record record;
    AccessTrap trap(record);
    trap.Watch(start, kLength, PROT_READ | PROT_WRITE);
    auto* const words = static_cast<std::atomic<std::uint64_t>*>(start);
    trap.Start();
    words[0].store(5);
    words[1].fetch_add(words[0].load());
    trap.Stop();
    std::size_t stores = 0;
    for (std::size_t index = 0; index < record.count; ++index) {
        const auto& access = record.accesses.at(index);
        if (access.isWrite && access.offset != sizeof(words[0]) * stores++) {
            return 2;
        }
    }
    return stores == 2 && record.count > 2 && words[1].load() == 5 ? kTrapsWork : 3;
}

}  // namespace

const char* AccessTrap::WhyNot() {
    if (!kHasTrapFlag) {
        return "single steps by the trap flag are those of x86-64";
    }
    static const bool works = [] {
        const pid_t child = ::fork();
        if (child == 0) {
            ::alarm(10);
            ::_exit(TryTraps());
        }
        int status = 0;
        while (::waitpid(child, &status, 0) == -1 && errno == EINTR) {
        }
        return WIFEXITED(status) && WEXITSTATUS(status) == kTrapsWork;
    }();
    return works ? nullptr : "single steps by the trap flag do not work here";
}

AccessTrap::AccessTrap(Record& record) : record_(record) {
    if (current != nullptr) {
        throw std::logic_error("there is a trap already");
    }
    current = this;
    struct sigaction action {};
    action.sa_flags = SA_SIGINFO;
    ::sigfillset(&action.sa_mask);
    ::sigdelset(&action.sa_mask, SIGSEGV);
    action.sa_sigaction = OnFault;
    ::sigaction(SIGSEGV, &action, &faultsBefore);
    action.sa_sigaction = OnTrap;
    ::sigaction(SIGTRAP, &action, &trapsBefore);
}

AccessTrap::~AccessTrap() {
    Stop();
    ::sigaction(SIGSEGV, &faultsBefore, nullptr);
    ::sigaction(SIGTRAP, &trapsBefore, nullptr);
    current = nullptr;
}

void AccessTrap::Watch(void* start, std::size_t length, int protection) {
    Area& area = areas_.at(areaCount_);
    area = {static_cast<unsigned char*>(start), length, protection, true};
    ++areaCount_;
    if (isOn_) {
        Close(area);
    }
}

void AccessTrap::Protect(void* start, int protection) {
    if (Area* const area = Find(start); area != nullptr) {
        area->protection = protection;
        if (isOn_) {
            Close(*area);
        }
    }
}

void AccessTrap::Forget(void* start) {
    if (Area* const area = Find(start); area != nullptr) {
        Open(*area);
        area->start = nullptr;
    }
}

void AccessTrap::Start(std::uint64_t kill) {
    StartWithAction(kill, KillThisProcess, nullptr);
}

void AccessTrap::StartWithAction(std::uint64_t after, Action action, void* argument) {
    end_ = after == 0 ? 0 : record_.count + after;
    action_ = action;
    argument_ = argument;
    isOn_ = true;
    for (Area& area : areas_) {
        Close(area);
    }
}

void AccessTrap::Stop() {
    isOn_ = false;
    for (Area& area : areas_) {
        Open(area);
    }
}

bool AccessTrap::NoteFault(const void* address, bool isWrite) noexcept {
    Area* const area = Find(address);
    if (area == nullptr || area->isOpen) {
        return false;  // not ours, or forbidden by the owner as well
    }
    Open(*area);
    if (record_.count < Record::kMost) {
        record_.accesses[record_.count] = {
            static_cast<std::uint64_t>(static_cast<const unsigned char*>(address) - area->start),
            static_cast<std::uint32_t>(area - areas_.data()), isWrite};
    }
    ++record_.count;
    return true;
}

void AccessTrap::NoteDone() noexcept {
    if (end_ != 0 && record_.count >= end_) {
        end_ = 0;
        action_(argument_);
    }
    for (Area& area : areas_) {
        if (isOn_) {
            Close(area);
        }
    }
}

void AccessTrap::Open(Area& area) const noexcept {
    if (area.start != nullptr && !area.isOpen) {
        SetProtection(area.start, area.length, area.protection);
    }
    area.isOpen = true;
}

void AccessTrap::Close(Area& area) const noexcept {
    if (area.start != nullptr) {
        SetProtection(area.start, area.length, PROT_NONE);
        area.isOpen = false;
    }
}

AccessTrap::Area* AccessTrap::Find(const void* address) noexcept {
    const auto* const byte = static_cast<const unsigned char*>(address);
    constexpr std::size_t kPage = 4096;
    for (Area& area : areas_) {
        const std::size_t pages = (area.length + kPage - 1) / kPage * kPage;
        if (area.start != nullptr && byte >= area.start && byte < area.start + pages) {
            return &area;
        }
    }
    return nullptr;
}

}  // namespace qel::test
