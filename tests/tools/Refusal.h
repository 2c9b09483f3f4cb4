#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ostream>
#include <string>
#include <vector>

#include "Command.h"
#include "UniqueRingName.h"

namespace qel::test {

/// Bad arguments and the line that refuses them. IN, OUT, NEW, DIR and NAME stand for a readable
/// file, a file with content, a file that is not there, a folder and a free ring name.
struct RefusalRow {
    std::vector<std::string> arguments;
    std::string line;
};

inline std::ostream& operator<<(std::ostream& stream, const RefusalRow& row) {
    for (const std::string& argument : row.arguments) {
        stream << argument << ' ';
    }
    return stream;
}

class Refusal : public testing::TestWithParam<RefusalRow> {
protected:
    void SetUp() override {
        WriteFile(folder_.Path("IN"), "input");
        WriteFile(folder_.Path("OUT"), "precious");
        ASSERT_EQ(mkdir(folder_.Path("DIR").c_str(), 0777), 0);
    }

    /// What a command made that should have refused.
    void TearDown() override {
        (void)unlink(LockPath().c_str());
        (void)unlink(SemaphorePath().c_str());
    }

    [[nodiscard]] std::string LockPath() const { return "/tmp/" + name_.Name() + "_shm.lock"; }
    [[nodiscard]] std::string SemaphorePath() const { return "/dev/shm/sem." + name_.Name(); }

    [[nodiscard]] std::string Filled(std::string text) const {
        for (const char* const word : {"IN", "OUT", "NEW", "DIR"}) {
            text = Replaced(text, word, folder_.Path(word));
        }
        return Replaced(text, "NAME", name_.Name());
    }

    [[nodiscard]] std::vector<std::string> Filled(std::vector<std::string> texts) const {
        for (std::string& text : texts) {
            text = Filled(text);
        }
        return texts;
    }

    UniqueRingName name_;
    TemporaryFolder folder_;

private:
    static std::string Replaced(std::string text, const std::string& word,
                                const std::string& with) {
        for (auto at = text.find(word); at != std::string::npos;
             at = text.find(word, at + with.size())) {
            text.replace(at, word.size(), with);
        }
        return text;
    }
};

}  // namespace qel::test
