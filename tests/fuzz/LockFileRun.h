#pragma once

#include <array>
#include <string>

#include "Input.h"
#include "LockFileImpl.h"

namespace qel::fuzz {

/// Random operations on a lock file's object, whose results are those of the rules.
class LockFileRun {
public:
    /// @param image  the file's 40 bytes
    LockFileRun(const std::string& path, Bytes image) : file_(path), image_(std::move(image)) {}

    void Do(Input& input);

private:
    void Lock(bool isShared, bool mayWait);
    void Read(Input& input);
    void Write(Input& input);

    using Record = std::array<unsigned char, 32>;

    LockFileIOBase<Record> file_;
    Bytes image_;
    int shared_ = 0;          ///< locks that have not been given back; below 0: too many were
    bool exclusive_ = false;  ///< the object takes itself for locked
};

}  // namespace qel::fuzz
