#pragma once

namespace qel {

/// Requests to stop that reach the command: SIGINT, SIGTERM and SIGHUP are counted instead of
/// ending it, and system calls that wait are interrupted. A broken pipe becomes an error of the
/// write. One for the process.
class Signals {
public:
    static void Catch();

    /// Waits until one has arrived.
    static void Wait();

    /// True once one has arrived.
    [[nodiscard]] static bool Any() noexcept;

    /// How many arrived so far.
    [[nodiscard]] static int Count() noexcept;

    /// The number of the first one, 0 before.
    [[nodiscard]] static int First() noexcept;
};

}  // namespace qel
