#include "Terminal.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <sstream>
#include <thread>

namespace qel::test {
namespace {

/// What a command of the shell prints; its failure too.
std::string OutputOf(const std::string& command, int* status = nullptr) {
    std::FILE* const pipe = popen((command + " 2>&1").c_str(), "re");
    EXPECT_NE(pipe, nullptr);
    std::string text;
    std::array<char, 4096> part{};
    for (std::size_t count = 1; count > 0;) {
        count = std::fread(part.data(), 1, part.size(), pipe);
        text.append(part.data(), count);
    }
    const int ended = pclose(pipe);
    if (status != nullptr) {
        *status = ended;
    }
    return text;
}

std::string Quoted(const std::string& text) {
    std::string quoted = "'";
    for (const char character : text) {
        quoted += character == '\'' ? std::string("'\\''") : std::string(1, character);
    }
    return quoted + "'";
}

bool Holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

std::string Terminal::WhyNone() {
    int status = 0;
    (void)OutputOf("tmux -V", &status);
    if (status != 0) {
        return "tmux is not installed";
    }
    const Terminal terminal("echo there; exec cat", 20, 5);
    const std::string screen = Joined(terminal.Screen());
    return Holds(screen, "no server") || Holds(screen, "error")
               ? "tmux does not work here: " + screen
               : "";
}

Terminal::Terminal(const std::string& command, int width, int height, const std::string& locale)
    : locale_(locale) {
    std::ostringstream arguments;
    arguments << "-f /dev/null new-session -d -x " << width << " -y " << height << " "
              << Quoted(command);
    (void)Tmux(arguments.str());
}

Terminal::~Terminal() {
    (void)Tmux("kill-server");
}

std::string Terminal::Tmux(const std::string& arguments) const {
    return OutputOf("env -u TMUX TMUX_TMPDIR=" + Quoted(folder_.Path()) + " LC_ALL=" + locale_ +
                    " tmux -L t " + arguments);
}

std::vector<std::string> Terminal::Screen() const {
    std::istringstream text(Tmux("capture-pane -p"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) {
        line.erase(line.find_last_not_of(' ') + 1);
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> Terminal::WaitFor(const std::vector<std::string>& texts,
                                           const std::vector<std::string>& others) const {
    constexpr std::chrono::milliseconds kBetweenLooks{20};
    for (;; std::this_thread::sleep_for(kBetweenLooks)) {
        const std::vector<std::string> screen = Screen();
        const std::string text = Joined(screen);
        const auto isThere = [&text](const std::string& part) { return Holds(text, part); };
        if (std::all_of(texts.begin(), texts.end(), isThere) &&
            std::none_of(others.begin(), others.end(), isThere)) {
            return screen;
        }
    }
}

void Terminal::Press(const std::string& keys) const {
    EXPECT_EQ(Tmux("send-keys " + keys), "");
}

void Terminal::Resize(int width, int height) const {
    EXPECT_EQ(Tmux("resize-window -x " + std::to_string(width) + " -y " + std::to_string(height)),
              "");
}

std::string Joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}

}  // namespace qel::test
