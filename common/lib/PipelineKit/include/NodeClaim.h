#pragma once

#include <memory>
#include <stdexcept>
#include <string>

namespace qel {

class ShmFile;

/// Somebody else holds the node. The text is as in "ring demo: node 1 is taken by another process
/// or element".
class NodeTaken : public std::runtime_error {
public:
    NodeTaken(const std::string& ringName, unsigned node)
        : std::runtime_error("ring " + ringName + ": node " + std::to_string(node) +
                             " is taken by another process or element") {}
};

/// Holds one node of a ring, so that no two users of the ring are the same node by mistake. It
/// binds those who claim; the ring itself knows nothing of it.
///
/// The claim is a lock of one byte of the ring's object, at the offset of the node's number. It
/// changes nothing in the object, and it is held against everybody, this process included.
///
/// What a crash leaves: nothing, the system gives the claim back with the process, whatever ended
/// it. A forked child shares the claim, which then lasts until both have ended or given it back;
/// a program that the child executes does not get it.
///
/// An object that is removed and made anew under the same name has claims of its own.
///
/// Thread use: made and destroyed by any thread.
class NodeClaim {
public:
    /// Claims the node `node`, 0 to 4, of the ring `ringName`, whose object must be there.
    /// @throws NodeTaken when somebody else holds it
    /// @throws RingError when the object cannot be opened (`ENOENT`, `EACCES`: it takes leave to
    ///         write) or locked
    /// @throws std::invalid_argument for a name or a node that no ring can have
    NodeClaim(const std::string& ringName, unsigned node);

    /// Gives the node back.
    ~NodeClaim();

    NodeClaim(const NodeClaim&) = delete;
    NodeClaim& operator=(const NodeClaim&) = delete;

private:
    std::unique_ptr<const ShmFile> object_;
};

}  // namespace qel
