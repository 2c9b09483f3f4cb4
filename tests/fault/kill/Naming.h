#pragma once

#include <set>
#include <string>

#include "Examination.h"
#include "RingUsers.h"
#include "Traffic.h"

namespace qel::test {

/// Codes of findings.
using Codes = std::set<std::string>;

/// What a death has left, as the command finds it without being told who died.
struct Named {
    Codes codes;
    std::uint64_t lostBytes = 0;  ///< that it says are in no counter
    bool isNodeMissing = false;
};
/// @param users  of the ring, as seen from outside
/// @param nodes  that the chain has, or 0 to leave it to be found out
Named NameWhatIsLeft(const RingImage& ring, const RingUsers& users, unsigned nodes);

/// Users of a ring who claim all of its nodes but `dead`. They are this process' child `pid`.
RingUsers AllBut(std::uint8_t dead, std::uint8_t sink, pid_t pid);

/// The findings of one who knows who died, and the codes for them. With nobody there every state of
/// the table is named. With the others still there some are not:
///
///  - bytes of a record that the writer had begun, or that a node was taking, are bytes that the
///  node
///    before may hold, unless records or numPackets prove that it does not;
///  - the same of a filler's bytes, if the sink holds others as well.
///
/// The others then see that a node is missing for which bytes wait.
///
/// Two things look alike, and are put right alike, whoever is there:
///
///  - numPackets one too high and bytes in no counter: a sink that held them and has given others
///    back without counting them, or a writer that had begun a record of just as many bytes;
///  - a filler that is a mere header, if the next record of node 1 is a mere header too.
struct Situation {
    std::uint8_t dead;
    bool areOthersThere;
    HeldBytes held;   ///< by the others
    bool isNextBare;  ///< the next record of node 1 is a mere header
};
/// Fails the test that is running if `named` are not what `findings` are called.
void ExpectNamed(const Findings& findings, const Named& named, const RingImage& ring,
                 const Situation& situation);

/// Puts the ring `left` right, which ends after every single store, and again. Fails the test that
/// is running if that is not what it would have become at once.
void RepairInterrupted(const RingImage& ring, const RingImage::Bytes& left);

}  // namespace qel::test
