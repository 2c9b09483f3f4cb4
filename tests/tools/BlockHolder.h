#pragma once

#include <string>
#include <vector>

#include "Command.h"
#include "Pipe.h"

namespace qel::test {

/// A command that has made its block and holds it.
class BlockHolder {
public:
    explicit BlockHolder(const std::vector<std::string>& arguments, int in = -1,
                         bool withoutPrivileges = false)
        : command_(arguments, {in, -1, messages_.In(), withoutPrivileges}) {
        messages_.CloseIn();
        said_ = messages_.ReadTo("; held until Ctrl-C\n");
    }

    [[nodiscard]] const std::string& Said() const { return said_; }
    Command& Process() { return command_; }

private:
    Pipe messages_;
    Command command_;
    std::string said_;
};

}  // namespace qel::test
