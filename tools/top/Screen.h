#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

#include "Cells.h"
#include "TopState.h"

namespace qel {

/// The terminal, taken over from standard input and output, and given back as it was at the end of
/// this object's life. One for the process.
class Screen {
public:
    /// Takes the character set from the locale, and colours as far as the terminal has them.
    /// @throws std::runtime_error when the terminal is not known
    Screen();
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    [[nodiscard]] Charset Characters() const noexcept { return charset_; }
    [[nodiscard]] std::size_t Width() const noexcept;
    [[nodiscard]] std::size_t Height() const noexcept;

    /// Shows the page; only what has changed is sent.
    void Paint(const Lines& page) const;

    /// Paints everything anew when the next page is shown.
    void Forget() const;

    /// Waits for so long, or less.
    /// @return true if there is something to `Read`, or a signal has arrived
    [[nodiscard]] static bool Wait(std::chrono::steady_clock::duration length);

    /// What was pressed since the last call; nothing if there is no more. A terminal that has gone
    /// is as if SIGHUP had come.
    [[nodiscard]] std::optional<Key> Read();

    /// True if the terminal has gone.
    [[nodiscard]] static bool IsGone();

private:
    Charset charset_;
    bool hasColours_ = false;
};

}  // namespace qel
