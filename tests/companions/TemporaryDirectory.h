#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace qel::test {

/// A directory of this test's own that everybody may search, removed with what is in it.
class TemporaryDirectory {
public:
    TemporaryDirectory() : path_("/tmp/qev-test-XXXXXX") {
        if (::mkdtemp(path_.data()) == nullptr || ::chmod(path_.c_str(), 0755) == -1) {
            throw std::runtime_error("no directory " + path_);
        }
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    [[nodiscard]] const std::string& Path() const { return path_; }
    [[nodiscard]] std::string Path(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

}  // namespace qel::test
