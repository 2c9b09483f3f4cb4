#include "Reserve.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include "File.h"
#include "RingError.h"
#include "RingFile.h"
#include "RingRules.h"

namespace qel {
namespace {

/// An object without a name, until `Name` gives it that.
class NamelessObject {
public:
    explicit NamelessObject(const Reservation& wanted) : wanted_(wanted) {
        constexpr mode_t kAsTheLibraryAsks = 0666;
        const std::string folder = path_.substr(0, path_.rfind('/'));
        file_ = File(open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, kAsTheLibraryAsks));
        if (!file_.IsOpen()) {
            Fail("make a file without a name for", errno);
        }
    }

    void RequireRoom() const;
    [[nodiscard]] bool TakeMemory(const StopPredicate& stop) const;
    void GiveAway() const;
    void Name() const;
    [[nodiscard]] std::string Text() const;

private:
    [[noreturn]] void Fail(const std::string& what, int error) const {
        throw RingError(fmt::format("ring {}: cannot {} {}", wanted_.name, what, path_), error);
    }
    [[noreturn]] void FailForRoom() const;
    [[nodiscard]] std::uint64_t Length() const { return wanted_.size + kControlBlockSize; }

    const Reservation& wanted_;
    std::string path_ = RingPath(wanted_.name);
    File file_;
};

struct statvfs RoomOf(int fd) {
    struct statvfs room {};
    (void)fstatvfs(fd, &room);  // all zero means without a limit, as the system itself has it
    return room;
}

std::uint64_t FreeBytes(const struct statvfs& room) {
    return static_cast<std::uint64_t>(room.f_bavail) * room.f_frsize;
}

void NamelessObject::FailForRoom() const {
    throw std::runtime_error(fmt::format("ring {}: {} bytes are wanted, {} has {} free",
                                         wanted_.name, Length(), path_.substr(0, path_.rfind('/')),
                                         FreeBytes(RoomOf(file_.Fd()))));
}

/// Asked before anything is taken: others may need what is left while it is counted out.
void NamelessObject::RequireRoom() const {
    const struct statvfs room = RoomOf(file_.Fd());
    if (room.f_blocks != 0 && Length() > FreeBytes(room)) {
        FailForRoom();
    }
}

/// @return false when it was stopped
bool NamelessObject::TakeMemory(const StopPredicate& stop) const {
    constexpr std::uint64_t kPart = 16U << 20U;  // taken between two looks at `stop`
    for (std::uint64_t done = 0; done < Length();) {
        const std::uint64_t part = std::min(kPart, Length() - done);
        const int error =
            posix_fallocate(file_.Fd(), static_cast<off_t>(done), static_cast<off_t>(part));
        if (stop()) {
            return false;
        }
        if (error == ENOSPC) {
            FailForRoom();
        }
        if (error != 0 && error != EINTR) {
            Fail(fmt::format("reserve {} bytes for", Length()), error);
        }
        done += error == 0 ? part : 0;
    }
    return true;
}

void NamelessObject::GiveAway() const {
    constexpr auto kAsItIs = static_cast<uid_t>(-1);
    if ((wanted_.owner || wanted_.group) &&
        fchown(file_.Fd(), wanted_.owner.value_or(kAsItIs), wanted_.group.value_or(kAsItIs)) != 0) {
        Fail("set owner and group of", errno);
    }
    if (wanted_.mode && fchmod(file_.Fd(), *wanted_.mode) != 0) {
        Fail("set the mode of", errno);
    }
}

void NamelessObject::Name() const {
    const std::string self = fmt::format("/proc/self/fd/{}", file_.Fd());
    if (linkat(AT_FDCWD, self.c_str(), AT_FDCWD, path_.c_str(), AT_SYMLINK_FOLLOW) != 0) {
        Fail("create", errno);
    }
}

std::string NamelessObject::Text() const {
    constexpr unsigned kPermissions = 07777;
    struct stat status {};
    if (fstat(file_.Fd(), &status) != 0) {
        Fail("look at", errno);
    }
    return fmt::format("ring {}: {} bytes reserved in {}, mode {:04o}, user {}, group {}",
                       wanted_.name, wanted_.size, path_, status.st_mode & kPermissions,
                       status.st_uid, status.st_gid);
}

/// Of what stands there and is no file, opening it tells.
void RefuseIfThere(const std::string& name) {
    const auto ring = RingFile::Open(name);
    if (!ring) {
        return;
    }
    if (static_cast<std::uint64_t>(ring->Status().st_size) < kControlBlockSize) {
        throw std::runtime_error(fmt::format("{} is there already: {} bytes, too short for a ring",
                                             RingPath(name), ring->Status().st_size));
    }
    throw std::runtime_error(
        fmt::format("ring {} is there already with {} bytes, {}", name, ring->Size(),
                    ring->Fields().initialised != 0 ? "initialised" : "not initialised yet"));
}

}  // namespace

std::optional<std::string> Reserve(const Reservation& wanted, const StopPredicate& stop) {
    RefuseIfThere(wanted.name);
    const NamelessObject object(wanted);
    object.RequireRoom();
    if (!object.TakeMemory(stop)) {
        return std::nullopt;
    }
    object.GiveAway();
    std::string text = object.Text();
    object.Name();
    return text;
}

}  // namespace qel
