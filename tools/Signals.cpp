#include "Signals.h"

#include <atomic>
#include <csignal>
#include <initializer_list>

namespace qel {
namespace {

std::atomic<int> count{0};
std::atomic<int> first{0};
static_assert(std::atomic<int>::is_always_lock_free, "used in a signal handler");

void CountSignal(int signal) {
    int none = 0;
    first.compare_exchange_strong(none, signal);
    count.fetch_add(1);
}

}  // namespace

void Signals::Catch() {
    struct sigaction action {};
    action.sa_handler = CountSignal;  // no SA_RESTART: waiting calls are to return
    (void)sigemptyset(&action.sa_mask);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        (void)sigaction(signal, &action, nullptr);
    }
    (void)std::signal(SIGPIPE, SIG_IGN);
    (void)std::signal(SIGXFSZ, SIG_IGN);
    (void)std::signal(SIGCHLD, SIG_DFL);  // the nodes' exit statuses are wanted
}

int Signals::Count() noexcept {
    return count.load();
}

int Signals::First() noexcept {
    return first.load();
}

}  // namespace qel
