#include "Signals.h"

#include <array>
#include <atomic>
#include <csignal>

namespace qel {
namespace {

std::atomic<int> caught{0};
std::atomic<int> firstCaught{0};
static_assert(std::atomic<int>::is_always_lock_free, "used in a signal handler");

constexpr std::array kRequests{SIGINT, SIGTERM, SIGHUP};

void CountSignal(int signal) {
    int none = 0;
    firstCaught.compare_exchange_strong(none, signal);
    caught.fetch_add(1);
}

}  // namespace

void Signals::Catch() {
    struct sigaction before {};
    (void)sigaction(SIGHUP, nullptr, &before);
    const bool hangupIsIgnored = before.sa_handler == SIG_IGN;  // by nohup
    struct sigaction action {};
    action.sa_handler = CountSignal;  // no SA_RESTART: waiting calls are to return
    (void)sigemptyset(&action.sa_mask);
    for (const int signal : kRequests) {
        (void)sigaction(signal, &action, nullptr);
    }
    if (hangupIsIgnored) {
        (void)std::signal(SIGHUP, SIG_IGN);
    }
    (void)std::signal(SIGPIPE, SIG_IGN);
    (void)std::signal(SIGXFSZ, SIG_IGN);
    (void)std::signal(SIGCHLD, SIG_DFL);  // the nodes' exit statuses are wanted
}

void Signals::Wait() {
    sigset_t requests{};
    sigset_t before{};
    (void)sigemptyset(&requests);
    for (const int signal : kRequests) {
        (void)sigaddset(&requests, signal);
    }
    // Blocked, so that none slips in between the look at the count and the wait.
    (void)sigprocmask(SIG_BLOCK, &requests, &before);
    while (!Any()) {
        (void)sigsuspend(&before);
    }
    (void)sigprocmask(SIG_SETMASK, &before, nullptr);
}

bool Signals::Any() noexcept {
    return Count() > 0;
}

int Signals::Count() noexcept {
    return caught.load();
}

int Signals::First() noexcept {
    return firstCaught.load();
}

}  // namespace qel
