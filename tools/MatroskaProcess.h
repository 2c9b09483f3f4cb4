#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "ByteSpan.h"
#include "File.h"

namespace qel {

/// The program that turns recordings into Matroska files and back, as a process of its own: this
/// command does without GStreamer. Signals that ask this command to stop do not end it; it ends
/// when its pipe does.
class MatroskaProcess {
public:
    /// Reads the entries of a recording, writes the file to `output`.
    /// @throws std::runtime_error when it is not installed or cannot be started
    [[nodiscard]] static MatroskaProcess Muxer(int output, std::vector<std::string> arguments);

    /// Reads the file `path`, writes the entries of a recording.
    [[nodiscard]] static MatroskaProcess Demuxer(const std::string& path);

    /// @throws std::runtime_error
    static void RequireInstalled();

    /// @throws std::runtime_error when no stream has these caps, which it says on standard error
    static void RequireCaps(const std::string& caps);

    /// Ends it if it still runs.
    ~MatroskaProcess();
    MatroskaProcess(MatroskaProcess&& other) noexcept;
    MatroskaProcess& operator=(MatroskaProcess&&) = delete;
    MatroskaProcess(const MatroskaProcess&) = delete;
    MatroskaProcess& operator=(const MatroskaProcess&) = delete;

    /// This side of the pipe.
    [[nodiscard]] int Fd() const noexcept { return pipe_.Fd(); }

    /// Gives `data` to it.
    /// @throws std::runtime_error when it has ended
    void Write(const ByteSpan& data);

    /// Closes the pipe and waits for its end.
    /// @throws std::runtime_error when it failed, which it has said on standard error
    void Finish();

private:
    MatroskaProcess(const std::vector<std::string>& arguments, int input, int output, File pipe);

    File pipe_;
    pid_t pid_ = -1;
};

}  // namespace qel
