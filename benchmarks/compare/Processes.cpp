#include "Processes.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <string>

#include "RingError.h"
#include "Transport.h"

namespace qel::bench {
namespace {

constexpr std::chrono::milliseconds kLook{200};

std::vector<int> UsableCores() {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof(set), &set) == -1) {
        throw RingError("cannot ask for the cores", errno);
    }
    std::vector<int> cores;
    for (int core = 0; core < CPU_SETSIZE; ++core) {
        if (CPU_ISSET(static_cast<unsigned>(core), &set)) {
            cores.push_back(core);
        }
    }
    return cores;
}

}  // namespace

void PinToCore(std::size_t which) {
    const std::vector<int> cores = UsableCores();
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<unsigned>(cores[which % cores.size()]), &set);
    if (sched_setaffinity(0, sizeof(set), &set) == -1) {
        throw RingError("cannot keep to a core", errno);
    }
}

void RunPinned(const std::vector<NodeChain::Body>& bodies, std::chrono::seconds patience) {
    std::vector<NodeChain::Body> pinned;
    for (std::size_t which = 0; which < bodies.size(); ++which) {
        pinned.emplace_back([which, &body = bodies[which]] {
            PinToCore(which);
            return body();
        });
    }
    const auto deadline = std::chrono::steady_clock::now() + patience;
    NodeChain chain(pinned);
    while (chain.Running() != 0) {
        const auto exit = chain.WaitForExit(kLook);
        if (exit && !exit->Succeeded()) {
            throw std::runtime_error(fmt::format("process {} {}", exit->node, exit->Text()));
        }
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error(
                fmt::format("the processes do not end within {} s", patience.count()));
        }
    }
}

std::uint64_t ResidentBesideFiles() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("RssAnon:", 0) == 0) {
            return std::stoull(line.substr(8)) * 1024;
        }
    }
    return 0;
}

std::uint64_t AllocationsSoFar() noexcept {
    using Count = std::uint64_t (*)();
    static const auto count = reinterpret_cast<Count>(dlsym(RTLD_DEFAULT, "qev_bench_allocations"));
    return count == nullptr ? 0 : count();
}

std::string UniqueName(unsigned channel) {
    static std::atomic<unsigned> next{0};
    return fmt::format("bench-{}-{}-{}", getpid(), next++, channel);
}

}  // namespace qel::bench
