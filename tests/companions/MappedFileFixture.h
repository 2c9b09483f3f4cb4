#pragma once

#include <gmock/gmock.h>

#include <cerrno>
#include <string>
#include <system_error>

#include "Files.h"
#include "MappedFile.h"
#include "ProcessState.h"
#include "TemporaryDirectory.h"

namespace qel::test {

/// What a refused file says: the text, and the reason in the exception and in `errno`.
inline std::string Refusal(const std::string& path, bool create) {
    errno = 0;
    try {
        const MappedFile file(path, create);
    } catch (const std::system_error& error) {
        if (error.code() != std::error_code(errno, std::generic_category())) {
            return "errno and the exception differ";
        }
        return error.what();
    }
    return "accepted";
}

inline std::string Text(const MappedFile& file) {
    return {reinterpret_cast<const char*>(file.Data()), file.Length()};
}

/// A path of its own, where nothing is yet.
class AMappedFile : public ::testing::Test {
protected:
    /// No descriptor, no mapping of anything in the directory.
    [[nodiscard]] bool NothingHeld() const { return HoldingsOf(directory_.Path()) == Holdings{}; }

    TemporaryDirectory directory_;
    std::string path_ = directory_.Path("file");
};

}  // namespace qel::test
