#include "Screen.h"

#include <langinfo.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <string>

#define NCURSES_NOMACROS 1
#include <curses.h>

namespace qel {
namespace {

constexpr short kDefault = -1;
constexpr short kNoPair = 0;

Charset CharsetOfLocale() {
    (void)std::setlocale(LC_CTYPE, "");
    return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0 ? Charset::Utf8 : Charset::Ascii;
}

short PairOf(Ink ink) {
    return static_cast<short>(static_cast<short>(ink) + 1);
}

void SetColours() {
    (void)start_color();
    (void)use_default_colors();
    const auto set = [](Ink ink, short colour) { (void)init_pair(PairOf(ink), colour, kDefault); };
    set(Ink::Title, COLOR_CYAN);
    set(Ink::Alarm, COLOR_RED);
    constexpr std::array<short, 4> kNodes{COLOR_GREEN, COLOR_YELLOW, COLOR_BLUE, COLOR_MAGENTA};
    for (unsigned node = 1; node <= kNodes.size(); ++node) {
        set(InkOf(node), kNodes.at(node - 1));
        set(BarInkOf(node), kNodes.at(node - 1));
    }
}

bool HasColour(Ink ink) {
    return ink == Ink::Title || ink == Ink::Alarm || ink > Ink::Free;
}

attr_t AttributesOf(Ink ink, bool isColoured) {
    if (ink > Ink::Node4) {
        return isColoured ? A_REVERSE : A_NORMAL;
    }
    switch (ink) {
        case Ink::Strong:
        case Ink::Alarm:
            return A_BOLD;
        case Ink::Dim:
        case Ink::Free:
            return A_DIM;
        case Ink::Selected:
            return A_REVERSE;
        case Ink::Title:
            return A_UNDERLINE;
        default:
            return A_NORMAL;
    }
}

std::optional<Key> KeyOf(int code) {
    switch (code) {
        case KEY_UP:
            return Key{Key::Kind::Up};
        case KEY_DOWN:
            return Key{Key::Kind::Down};
        case KEY_PPAGE:
            return Key{Key::Kind::PageUp};
        case KEY_NPAGE:
            return Key{Key::Kind::PageDown};
        case KEY_HOME:
            return Key{Key::Kind::Home};
        case KEY_END:
            return Key{Key::Kind::End};
        case KEY_ENTER:
        case '\n':
        case '\r':
            return Key{Key::Kind::Enter};
        case KEY_BACKSPACE:
        case '\b':
        case '\x7f':
            return Key{Key::Kind::Erase};
        case '\x1b':
            return Key{Key::Kind::Escape};
        default:
            break;
    }
    constexpr int kPastBytes = 256;
    return code >= ' ' && code < kPastBytes
               ? std::optional(Key{Key::Kind::Character, static_cast<char>(code)})
               : std::nullopt;
}

}  // namespace

Screen::Screen() : charset_(CharsetOfLocale()) {
    constexpr int kEscapeDelay = 25;  // milliseconds in which a key's sequence comes
    if (newterm(nullptr, stdout, stdin) == nullptr) {
        const char* const name = std::getenv("TERM");
        throw std::runtime_error(
            "cannot use the terminal: TERM is " +
            (name == nullptr ? std::string("not set") : "\"" + std::string(name) + "\""));
    }
    (void)set_escdelay(kEscapeDelay);
    (void)cbreak();
    (void)noecho();
    (void)nonl();
    (void)intrflush(stdscr, FALSE);
    (void)keypad(stdscr, TRUE);
    (void)nodelay(stdscr, TRUE);
    (void)curs_set(0);
    hasColours_ = has_colors();
    if (hasColours_) {
        SetColours();
    }
}

Screen::~Screen() {
    (void)endwin();
}

std::size_t Screen::Width() const noexcept {
    return static_cast<std::size_t>(getmaxx(stdscr));
}

std::size_t Screen::Height() const noexcept {
    return static_cast<std::size_t>(getmaxy(stdscr));
}

void Screen::Paint(const Lines& page) const {
    (void)erase();
    for (std::size_t row = 0; row < page.size(); ++row) {
        (void)move(static_cast<int>(row), 0);
        for (const Span& span : page[row]) {
            const bool isColoured = hasColours_ && HasColour(span.ink);
            const short pair = isColoured ? PairOf(span.ink) : kNoPair;
            (void)attr_set(AttributesOf(span.ink, isColoured), pair, nullptr);
            (void)addstr(span.text.c_str());
        }
    }
    (void)attr_set(A_NORMAL, 0, nullptr);
    (void)wnoutrefresh(stdscr);
    (void)doupdate();
}

void Screen::Forget() const {
    (void)clearok(stdscr, TRUE);
}

bool Screen::Wait(std::chrono::steady_clock::duration length) {
    const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(length).count();
    constexpr std::int64_t kSecond = 1'000'000'000;
    const timespec time{nanoseconds / kSecond, nanoseconds % kSecond};
    pollfd input{STDIN_FILENO, POLLIN, 0};
    return ppoll(&input, 1, &time, nullptr) != 0;
}

bool Screen::IsGone() {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    return poll(&input, 1, 0) == 1 && (input.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
}

std::optional<Key> Screen::Read() {
    for (int code = getch(); code != ERR; code = getch()) {
        if (const auto key = KeyOf(code)) {
            return key;
        }
    }
    return std::nullopt;
}

}  // namespace qel
