// A block that one process writes and another reads, here the settings of a camera. The reader
// always sees a whole set of them, never a half-written one.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>

#include "SharedMemoryBlockReader.h"
#include "SharedMemoryBlockWriter.h"

namespace {

/// The contents: no pointers, as each process has the block at another address.
struct Settings {
    std::uint32_t width;
    std::uint32_t height;
    std::uint32_t framesPerSecond;
};

/// Removes the lock file by which the block is found.
struct RemovedAtEnd {
    const std::string& name;
    ~RemovedAtEnd() { ::unlink(("/tmp/" + name + "_shm.lock").c_str()); }
};

/// The reader, in a process of its own: true if the block says what is expected.
bool Read(const std::string& name, std::uint32_t framesPerSecond) {
    qel::SharedMemoryBlockReader block(name);
    Settings settings{};
    block.Lock();
    std::memcpy(&settings, block.GetData(), sizeof settings);
    block.Unlock();
    std::cout << "reader: " << settings.width << " x " << settings.height << " at "
              << settings.framesPerSecond << std::endl;
    return settings.framesPerSecond == framesPerSecond;
}

/// Runs this program again as a reader; true if that reads what is expected.
bool ReaderSees(const std::string& name, std::uint32_t framesPerSecond) {
    const std::string expected = std::to_string(framesPerSecond);
    const pid_t reader = ::fork();
    if (reader == 0) {
        ::execl("/proc/self/exe", "block", name.c_str(), expected.c_str(), nullptr);
        ::_exit(2);
    }
    int status = 0;
    return reader > 0 && ::waitpid(reader, &status, 0) == reader && status == 0;
}

void Write(qel::SharedMemoryBlockWriter& block, const Settings& settings) {
    block.LockForWrite();
    std::memcpy(block.GetDataForWrite(), &settings, sizeof settings);
    block.UnlockForWrite();
}

int Run(const std::string& name) {
    const RemovedAtEnd removed{name};
    // The block lives as long as its writer: keep it while readers are to find it.
    qel::SharedMemoryBlockWriter block(name, sizeof(Settings));
    Write(block, {1920, 1080, 25});
    const bool firstSeen = ReaderSees(name, 25);
    Write(block, {3840, 2160, 50});
    const bool secondSeen = ReaderSees(name, 50);
    return firstSeen && secondSeen ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        if (argc > 2) {
            return Read(argv[1], static_cast<std::uint32_t>(std::stoul(argv[2]))) ? 0 : 1;
        }
        return Run("qev-example-" + std::to_string(::getpid()));
    } catch (const std::exception& error) {
        std::cerr << error.what() << std::endl;
        return 3;
    }
}
