#pragma once

#include <string>
#include <vector>

#include "BlockFixture.h"
#include "CallFaults.h"
#include "CapturedLog.h"

namespace qel::test {

/// A block test whose direct system calls are recorded and can be refused. Records show the lock
/// file as LOCK, the memory file as MEMORY, and the link that announces it as ANNOUNCED.
class FaultyBlockTest : public BlockTest {
protected:
    FaultyBlockTest() {
        faults_.Alias(lockPath_, "LOCK");
        faults_.Alias("/memfd:" + name_.MemoryName() + " (deleted)", "MEMORY");
    }

    /// Lets records show the link of the present record as ANNOUNCED.
    void AliasAnnounced() { faults_.Alias(AnnouncedPath(Record()), "ANNOUNCED"); }

    /// The calls from the first on the lock on.
    [[nodiscard]] std::vector<std::string> CallsFromLocking() const {
        std::vector<std::string> calls = faults_.Calls();
        auto first = calls.begin();
        while (first != calls.end() && first->rfind("flock", 0) != 0) {
            ++first;
        }
        calls.erase(calls.begin(), first);
        return calls;
    }

    CapturedLog log_;
    CallFaults faults_;
};

}  // namespace qel::test
