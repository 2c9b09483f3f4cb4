#pragma once

#include <cstdint>
#include <string>

namespace qel::test {

/// What a process holds of the system at one moment.
struct Resources {
    std::uint64_t descriptors = 0;
    std::uint64_t mappings = 0;  ///< of files, shared memory included
    std::uint64_t threads = 0;
    std::uint64_t resident = 0;  ///< bytes of memory in use, with code and shared memory
    std::uint64_t own = 0;       ///< bytes of those that are neither shared nor of a file
    std::uint64_t heap = 0;      ///< bytes that are allocated
};

/// What this process holds now.
Resources MeasureResources();

/// Judges a series of measurements that are taken at moments at which a process should hold the
/// same.
class ResourceWatch {
public:
    /// What may come on top of the memory at a quarter of the run.
    static constexpr std::uint64_t kResidentBound = 1 << 20;  // code runs for its first time late
    static constexpr std::uint64_t kOwnBound = 128 << 10;
    static constexpr std::uint64_t kHeapBound = 16 << 10;

    /// @param done  how much of the run is over, 0 to 1
    /// @throws std::runtime_error  after a tenth of the run, when descriptors, mappings or threads
    ///                             differ; after a quarter, when memory has grown
    void Take(double done);

    [[nodiscard]] const Resources& AtQuarter() const { return atQuarter_; }
    [[nodiscard]] const Resources& Last() const { return last_; }
    /// False if the run was too short to judge.
    [[nodiscard]] bool HasJudged() const { return judged_; }

private:
    Resources warm_;
    Resources atQuarter_;
    Resources last_;
    bool isWarm_ = false;
    bool isAtQuarter_ = false;
    bool judged_ = false;
};

}  // namespace qel::test
