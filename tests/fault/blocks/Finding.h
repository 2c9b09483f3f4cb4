#pragma once

#include <string>

#include "Outcome.h"
#include "SharedMemoryBlock.h"

namespace qel::test {

/// What a process that comes after the death finds.
struct Finding {
    std::string locks;  ///< empty if every kind of lock was free
    std::string opening;
    std::string attaching;
    std::string creating;
};

/// In a process of its own: takes each kind of lock in each way, then opens the block, attaches to
/// it, and makes it if it is not there.
Finding FindNext(const std::string& name);

/// What is left beside the words.
struct Remains {
    bool file = false;
    bool record = false;
    bool isPartlyNew = false;  ///< the record
    bool creatorLives = false;
    std::string survivorsData{};  ///< empty if nobody has a block open
};

/// Says in words what was found, how else it can be seen, and what to do about it.
void Tell(Outcome& outcome, const Finding& found, const Remains& remains);

/// True for the text with which an opener refuses a record that leads to no live block.
bool IsRefusalOfStaleRecord(const std::string& text);

/// What a block's data is, in words; it is read under a lock.
std::string DataInWords(SharedMemoryBlock& block);

/// Ends this process if a lock is never given.
void SetSafetyAlarm();

}  // namespace qel::test
