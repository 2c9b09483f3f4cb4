// Mapped files and descriptors whose system calls are refused.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "Explorer.h"
#include "FileDescriptor.h"
#include "Files.h"
#include "MappedFile.h"

namespace qel::test {
namespace {

/// A file of five bytes, or none, at a path of its own.
class FileScenario : public Scenario {
public:
    using Scenario::Scenario;

    void Prepare() override { WriteFile(Path(), "hello"); }
    void Destroy() override { file_.reset(); }
    void Again() override {
        MappedFile file(Path(), true);
        ASSERT_TRUE(file.TruncateTo(40));
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(file.Data()), 3), "hel")
            << "what was there before";
    }

protected:
    [[nodiscard]] const std::string& Path() const { return path_; }
    void Open() { file_.emplace(Path(), true); }
    [[nodiscard]] MappedFile& File() { return *file_; }

private:
    std::string path_ = names_.block.LockPath();
    std::optional<MappedFile> file_;
};

class Opening : public FileScenario {
public:
    using FileScenario::FileScenario;

    std::string Run() override {
        Open();
        return std::string(reinterpret_cast<const char*>(File().Data()), File().Length());
    }
};

/// Makes the file, which is then not mapped.
class Creating : public FileScenario {
public:
    using FileScenario::FileScenario;

    void Prepare() override {}
    std::string Run() override {
        Open();
        return File().Data() == nullptr ? "empty" : "mapped";
    }
    void Again() override {
        FileScenario::Prepare();
        FileScenario::Again();
    }
};

/// Gives the file another length. A refused one is as it was.
class Resizing : public FileScenario {
public:
    Resizing(const World& world, std::uint64_t length) : FileScenario(world), length_(length) {}

    void Construct() override { Open(); }
    std::string Run() override {
        const bool resized = File().TruncateTo(length_);
        const int error = errno;
        return resized
                   ? "mapped " + std::to_string(File().Length())
                   : "refused " + std::to_string(error) + ", mapped " +
                         std::string(reinterpret_cast<const char*>(File().Data()), File().Length());
    }

    [[nodiscard]] bool CanRecover() const override { return true; }

private:
    std::uint64_t length_;
};

/// Closes the file; its end has nothing to do then.
class Closing : public FileScenario {
public:
    using FileScenario::FileScenario;

    void Construct() override { Open(); }
    std::string Run() override {
        File().Close();
        return File().Descriptor().IsOpen() || File().Data() != nullptr ? "open" : "closed";
    }
};

/// Ends a descriptor while errno tells of something else.
class EndingDescriptor : public FileScenario {
public:
    using FileScenario::FileScenario;

    void Construct() override {
        descriptor_ = FileDescriptor(::open(Path().c_str(), O_RDONLY | O_CLOEXEC));
    }
    std::string Run() override {
        errno = ERANGE;
        descriptor_ = FileDescriptor();
        return errno == ERANGE ? "errno kept" : "errno lost";
    }

private:
    FileDescriptor descriptor_;
};

constexpr const char* kOpen = "open(LOCK, 655426, 438)";
constexpr const char* kUnmap = "munmap(5)";
constexpr const char* kClose = "close(LOCK)";

Outcome Refused(const std::string& what) {
    return Throws("MappedFile: could not " + what + " {LOCK}: {strerror}", "std::system_error");
}

TEST(RefusedCallsOfAFile, WhenItIsOpened) {
    ExploreDirectCalls(Make<Opening>(),
                       {Returns("hello"),
                        {At(kOpen, Refused("open")), At("fstat(LOCK)", Refused("examine")),
                         At("mmap(5, 3, 1, LOCK, 0)", Refused("map"))},
                        {},
                        {kUnmap, kClose},
                        true});
}

TEST(RefusedCallsOfAFile, WhenItIsMade) {
    ExploreDirectCalls(Make<Creating>(),
                       {Returns("empty"),
                        {At(kOpen, Refused("open")), At("fstat(LOCK)", Refused("examine"))},
                        {},
                        {kClose},
                        true});
}

TEST(RefusedCallsOfAFile, WhenItGrows) {
    const auto refused = Returns("refused {errno}, mapped hello");
    ExploreDirectCalls(
        Make<Resizing>(std::uint64_t{40}),
        {Returns("mapped 40"),
         {At("posix_fallocate(LOCK, 0, 40)", refused), At("ftruncate(LOCK, 40)", refused),
          At("mmap(40, 3, 1, LOCK, 0)", refused)},
         {"posix_fallocate(LOCK, 0, 40)"},
         {kUnmap, "munmap(40)", kClose}});
}

TEST(RefusedCallsOfAFile, WhenItShrinks) {
    const auto refused = Returns("refused {errno}, mapped hello");
    ExploreDirectCalls(Make<Resizing>(std::uint64_t{3}),
                       {Returns("mapped 3"),
                        {At("mmap(3, 3, 1, LOCK, 0)", refused), At("ftruncate(LOCK, 3)", refused)},
                        {},
                        {kUnmap, "munmap(3)", kClose}});
}

TEST(RefusedCallsOfAFile, WhenItIsCutToNothing) {
    /// Nothing is left of the content.
    class Cutting : public Resizing {
    public:
        explicit Cutting(const World& world) : Resizing(world, 0) {}
        void Again() override {
            Prepare();
            Resizing::Again();
        }
    };
    ExploreDirectCalls(Make<Cutting>(),
                       {Returns("mapped 0"),
                        {At("ftruncate(LOCK, 0)", Returns("refused {errno}, mapped hello"))},
                        {},
                        {kUnmap, kClose}});
}

TEST(RefusedCallsOfAFile, WhenItIsClosed) {
    ExploreDirectCalls(Make<Closing>(), {Returns("closed"), {}, {}, {kUnmap, kClose}});
}

TEST(RefusedCallsOfAFile, WhenADescriptorEnds) {
    ExploreDirectCalls(Make<EndingDescriptor>(), {Returns("errno kept"), {}, {}, {kClose}});
}

}  // namespace
}  // namespace qel::test
