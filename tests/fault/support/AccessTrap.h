#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace qel::test {

/// Sees every single access of this process to watched memory, and can end the process right after
/// any of them, as a kill at that moment would.
///
/// Watched memory is made inaccessible. The fault of an access is noted, the memory opened and the
/// processor's trap flag set, so that the trap after this one instruction closes it again.
///
/// An atomic read-modify-write is one write. An instruction that moves a block piece by piece makes
/// one access of every piece. The kernel's own accesses, as in `write`, are refused with EFAULT
/// while the trap is on.
///
/// Thread use: one object at a time, in a process of one thread.
class AccessTrap {
public:
    struct Access {
        std::uint64_t offset;  ///< from the start of the area
        std::uint32_t area;    ///< in the order of watching, 0 being the first
        bool isWrite;
    };
    /// What is noted. May lie in memory that another process shares, which it then outlives in.
    struct Record {
        static constexpr std::size_t kMost = 4096;
        std::uint64_t count = 0;  ///< accesses so far; beyond kMost they are counted only
        std::array<Access, kMost> accesses{};
    };
    using Action = void (*)(void* argument);

    /// Why this process cannot have its accesses trapped, nullptr if it can.
    static const char* WhyNot();

    explicit AccessTrap(Record& record);
    ~AccessTrap();
    AccessTrap(const AccessTrap&) = delete;
    AccessTrap& operator=(const AccessTrap&) = delete;

    /// From now on `length` bytes from `start`, a page's first byte, are watched whenever the trap
    /// is on. `protection` is what the owner has mapped them with.
    void Watch(void* start, std::size_t length, int protection);
    /// The owner has changed the protection of an area, or of a piece of it, of which the area then
    /// has it as a whole. Nothing happens if the piece lies in no area.
    void Protect(void* start, int protection);
    /// To be called before the owner unmaps an area. Nothing happens if it is none.
    void Forget(void* start);

    /// Turns the trap on. Right after the `kill`th access from now the process kills itself; 0 is
    /// never.
    void Start(std::uint64_t kill = 0);
    /// The same with `action` in place of the kill, which runs in a signal handler while the memory
    /// is open.
    void StartWithAction(std::uint64_t after, Action action, void* argument);
    /// Turns the trap off.
    void Stop();

    /// Async-signal-safe; for the handlers of this class only.
    bool NoteFault(const void* address, bool isWrite) noexcept;
    void NoteDone() noexcept;

private:
    struct Area {
        unsigned char* start = nullptr;  ///< nullptr if not watched any more
        std::size_t length = 0;
        int protection = 0;
        bool isOpen = true;
    };

    void Open(Area& area) const noexcept;
    void Close(Area& area) const noexcept;
    Area* Find(const void* address) noexcept;

    Record& record_;
    std::array<Area, 8> areas_;
    std::size_t areaCount_ = 0;
    bool isOn_ = false;
    std::uint64_t end_ = 0;  ///< count after which to act
    Action action_ = nullptr;
    void* argument_ = nullptr;
};

}  // namespace qel::test
