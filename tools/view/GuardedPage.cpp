#include "GuardedPage.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <utility>

namespace qel {
namespace {

constexpr std::size_t kMostPages = 4096;

/// Addresses of all guarded pages, 0 where a place is free. The handler reads it at any moment.
std::array<std::atomic<std::uintptr_t>, kMostPages> guarded{};
static_assert(std::atomic<std::uintptr_t>::is_always_lock_free);

std::uintptr_t PageSize() noexcept {
    static const auto size = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    return size;
}

void* PutZeros(std::uintptr_t page) noexcept {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): it came as a number
    return mmap(reinterpret_cast<void*>(page), PageSize(), PROT_READ | PROT_WRITE,
                MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
}

void OnBusError(int signal, siginfo_t* info, void* /*context*/) noexcept {
    const int error = errno;
    const auto page = reinterpret_cast<std::uintptr_t>(info->si_addr) & ~(PageSize() - 1);
    const bool isOurs =
        page != 0 && std::find(guarded.begin(), guarded.end(), page) != guarded.end();
    if (!isOurs || PutZeros(page) == MAP_FAILED) {
        (void)std::signal(signal, SIG_DFL);  // the access is made again, and ends the process
    }
    errno = error;
}

void CatchBusErrors() noexcept {
    struct sigaction action {};
    action.sa_sigaction = OnBusError;
    action.sa_flags = SA_SIGINFO;
    (void)sigaction(SIGBUS, &action, nullptr);
}

bool Exchange(std::uintptr_t from, std::uintptr_t to) noexcept {
    return std::any_of(guarded.begin(), guarded.end(), [&](auto& place) {
        std::uintptr_t expected = from;
        return place.compare_exchange_strong(expected, to);
    });
}

}  // namespace

GuardedPage::GuardedPage(int fd, Access access) noexcept : writes_(access == Access::Write) {
    static const bool isCaught = (PageSize(), CatchBusErrors(), true);
    (void)isCaught;
    void* const data =
        mmap(nullptr, PageSize(), writes_ ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
    if (data == MAP_FAILED) {
        return;
    }
    if (!Exchange(0, reinterpret_cast<std::uintptr_t>(data))) {
        (void)munmap(data, PageSize());
        return;
    }
    data_ = data;
}

GuardedPage::~GuardedPage() {
    if (data_ != nullptr) {
        (void)Exchange(reinterpret_cast<std::uintptr_t>(data_), 0);
        (void)munmap(data_, PageSize());
    }
}

GuardedPage::GuardedPage(GuardedPage&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), writes_(other.writes_) {}

GuardedPage& GuardedPage::operator=(GuardedPage&& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(writes_, other.writes_);
    return *this;
}

}  // namespace qel
