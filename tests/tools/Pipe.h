#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <string>

namespace qel::test {

class Pipe {
public:
    Pipe() { EXPECT_EQ(pipe2(ends_.data(), O_CLOEXEC), 0); }
    ~Pipe() {
        CloseIn();
        CloseOut();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    /// The end to write into, and the end to read from.
    [[nodiscard]] int In() const { return ends_[1]; }
    [[nodiscard]] int Out() const { return ends_[0]; }
    void CloseIn() { Close(ends_[1]); }
    void CloseOut() { Close(ends_[0]); }

    void Write(const std::string& text) const {
        EXPECT_EQ(write(In(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    /// All that comes up to and with `mark`, or to the end.
    [[nodiscard]] std::string ReadTo(const std::string& mark) const {
        std::string text;
        std::string next;
        do {
            next = Read(1);
            text += next;
        } while (!next.empty() && text.find(mark) == std::string::npos);
        return text;
    }
    /// Up to `count` bytes; fewer at the end.
    [[nodiscard]] std::string Read(std::size_t count) const {
        std::string text(count, '\0');
        std::size_t done = 0;
        for (ssize_t got = 1; got > 0 && done < count; done += static_cast<std::size_t>(got)) {
            got = read(Out(), text.data() + done, count - done);
            if (got <= 0) {
                break;
            }
        }
        text.resize(done);
        return text;
    }

private:
    static void Close(int& fd) {
        if (fd != -1) {
            (void)close(fd);
            fd = -1;
        }
    }
    std::array<int, 2> ends_{-1, -1};
};

}  // namespace qel::test
