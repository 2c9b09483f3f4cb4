#include "DocumentedFaults.h"

#include <cerrno>
#include <initializer_list>
#include <map>

namespace qel::test {
namespace {

std::vector<Fault> Errors(std::initializer_list<int> errors) {
    std::vector<Fault> faults;
    for (const int error : errors) {
        faults.push_back({error, -1});
    }
    return faults;
}

/// A read of 8 bytes also comes back with fewer.
std::vector<Fault> ReadFaults() {
    std::vector<Fault> faults =
        Errors({EAGAIN, EBADF, EFAULT, EINTR, EINVAL, EIO, EISDIR, ENXIO, EOVERFLOW, ESPIPE});
    for (long length = 0; length < 8; ++length) {
        faults.push_back({0, length});
    }
    return faults;
}

std::map<std::string, std::vector<Fault>> MakeTable() {
    const std::vector<Fault> timedWait = Errors({EDEADLK, EINTR, EINVAL, ETIMEDOUT});
    return {
        {"open", Errors({EACCES,       EAGAIN,     EBADF,     EBUSY,  EDQUOT, EEXIST, EFAULT,
                         EFBIG,        EINTR,      EINVAL,    EIO,    EISDIR, ELOOP,  EMFILE,
                         ENAMETOOLONG, ENFILE,     ENODEV,    ENOENT, ENOMEM, ENOSPC, ENOTDIR,
                         ENXIO,        EOPNOTSUPP, EOVERFLOW, EPERM,  EROFS,  ETXTBSY})},
        {"stat", Errors({EACCES, EBADF, EFAULT, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR,
                         EOVERFLOW})},
        {"fstat", Errors({EACCES, EBADF, EFAULT, EIO, ENOMEM, EOVERFLOW})},
        {"pread", ReadFaults()},
        {"fcntl", Errors({EACCES, EAGAIN, EBADF, EBUSY, EDEADLK, EFAULT, EINTR, EINVAL, EMFILE,
                          ENOLCK, EOVERFLOW, EPERM})},
        {"mprotect", Errors({EACCES, EINVAL, ENOMEM})},
        {"flock", Errors({EBADF, EINTR, EINVAL, EIO, ENOLCK, EWOULDBLOCK})},
        {"mmap", Errors({EACCES, EAGAIN, EBADF, EEXIST, EINVAL, ENFILE, ENODEV, ENOMEM, EOVERFLOW,
                         EPERM, ETXTBSY})},
        {"munmap", Errors({EINVAL, ENOMEM})},
        {"ftruncate",
         Errors({EACCES, EBADF, EFBIG, EINTR, EINVAL, EIO, ENOMEM, ENOSPC, EPERM, EROFS, ETXTBSY})},
        {"posix_fallocate",
         Errors({EBADF, EFBIG, EINTR, EINVAL, EIO, ENODEV, ENOSPC, EOPNOTSUPP, ESPIPE})},
        {"close", Errors({EBADF, EDQUOT, EINTR, EIO, ENOSPC})},
        {"memfd_create", Errors({EFAULT, EINVAL, EMFILE, ENFILE, ENOMEM, ENOSYS, EPERM})},
        {"shm_open", Errors({EACCES, EEXIST, EINTR, EINVAL, ELOOP, EMFILE, ENAMETOOLONG, ENFILE,
                             ENOENT, ENOMEM, ENOSPC})},
        {"shm_unlink", Errors({EACCES, ENAMETOOLONG, ENOENT, EPERM})},
        {"madvise",
         Errors({EACCES, EAGAIN, EBADF, EBUSY, EFAULT, EHWPOISON, EINVAL, EIO, ENOMEM, EPERM})},
        {"sem_open", Errors({EACCES, EEXIST, EINTR, EINVAL, EMFILE, ENAMETOOLONG, ENFILE, ENOENT,
                             ENOMEM, ENOSPC})},
        {"sem_close", Errors({EINVAL})},
        {"sem_post", Errors({EINVAL, EOVERFLOW})},
        {"sem_wait", Errors({EDEADLK, EINTR, EINVAL})},
        {"sem_trywait", Errors({EAGAIN, EDEADLK, EINTR, EINVAL})},
        {"sem_timedwait", timedWait},
        {"sem_clockwait", timedWait},
        {"sem_getvalue", Errors({EINVAL})},
    };
}

}  // namespace

const std::vector<Fault>& DocumentedFaults(const std::string& operation) {
    static const std::map<std::string, std::vector<Fault>> table = MakeTable();
    static const std::vector<Fault> none;
    const auto found = table.find(operation);
    return found == table.end() ? none : found->second;
}

}  // namespace qel::test
