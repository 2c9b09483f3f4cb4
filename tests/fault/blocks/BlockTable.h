#pragma once

#include <string>

#include "PublishedTable.h"

namespace qel::test {

/// What is published of the deaths beside a block.
PublishedTable BlockTable();

/// A call as CallFaults records it, in the words of the documentation; empty for a call that
/// touches nothing of a block.
std::string StepOf(const std::string& call);

/// As the title of a scene whose single accesses are looked at.
std::string TitleOfAccesses(const std::string& title);

}  // namespace qel::test
