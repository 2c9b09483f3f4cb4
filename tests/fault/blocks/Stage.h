#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AccessTrap.h"
#include "CapturedLog.h"
#include "ChildProcess.h"
#include "Outcome.h"
#include "ProcessState.h"
#include "Scenes.h"
#include "SharedMemoryMetadata.h"
#include "UniqueBlockName.h"

namespace qel::test {

/// A moment at which a process is killed.
struct Moment {
    enum class Kind { Never, BeforeCall, AfterCall, AfterAccess };

    Kind kind = Kind::Never;
    std::string operation{};  ///< of a call
    int nth = 1;              ///< of the calls of that operation, or of the accesses
};

/// One run of a scene: the world as the scene finds it, the process that acts, those who survive it
/// (all in this process), and those who come after.
class Stage {
public:
    static constexpr const char* kNewRecord = "the dead process's record";
    static constexpr const char* kPartlyNew = "a record that is partly new";

    explicit Stage(const Scene& scene);
    ~Stage();
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    /// Lets the process act undisturbed; what it calls, see CallFaults::Calls.
    std::vector<std::string> Rehearse();
    /// The same with every access to the lock file's and the memory's mappings noted.
    void RehearseAccesses(AccessTrap::Record& record);
    /// Lets the process act and kills it at `moment`; returns when it is gone.
    void Kill(const Moment& moment);

    /// The lock file's bytes, empty if there is none.
    [[nodiscard]] std::string LockFile() const;
    /// Takes the record that the dead process has written back, but for its first `length` bytes,
    /// as if it had died between them.
    void KeepOfRecord(std::size_t length);

    /// Expects what every death leaves sound: descriptors and locks of the survivors, their data,
    /// nothing but the lock file left. Sees what is left and what the next process finds.
    Outcome Look();

    [[nodiscard]] const UniqueBlockName& Name() const { return name_; }
    [[nodiscard]] SharedMemoryMetadata Record() const;
    [[nodiscard]] pid_t Pid() const { return actor_->Pid(); }

private:
    void MakeWorld();
    void WriteLockFile(std::size_t length) const;
    void OpenSurvivors();
    void MakeStale();
    void ReuseDescriptor();
    void Begin(const Moment& moment, AccessTrap::Record* accesses);
    void ExpectSurvivorsSound();
    void ExpectNothingElseLeft() const;
    [[nodiscard]] std::string Left() const;
    [[nodiscard]] bool IsPartlyNew() const;

    const Scene& scene_;
    CapturedLog log_;  // keeps the refusals off standard error
    UniqueBlockName name_;
    std::unique_ptr<SharedMemoryBlock> creator_;
    std::unique_ptr<SharedMemoryBlock> reader_;
    std::unique_ptr<SharedMemoryBlock> writer_;
    int other_ = -1;  // the file that stands under the creator's descriptor number
    std::string lockFileBefore_;
    Holdings holdingBefore_;
    bool isHalved_ = false;
    std::optional<ChildProcess> actor_;
};

}  // namespace qel::test
