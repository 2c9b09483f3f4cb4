#include "FakeKernel.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QEV_POISON_TAILS
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define QEV_POISON_TAILS
#endif
#ifdef QEV_POISON_TAILS
#include <sanitizer/asan_interface.h>
#endif

namespace qel::test {

/// Bytes at a fixed address, so that an object can grow while it is mapped.
class FakeKernel::Object {
public:
    Object()
        : memory_(::mmap(nullptr, kReserved, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)) {
        if (memory_ == MAP_FAILED) {
            throw std::runtime_error("no memory for a substitute kernel object");
        }
        Resize(0);
    }
    ~Object() {
        Poison(tail_, false);
        ::munmap(memory_, kReserved);
    }
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

    /// Accepts every length; only the reserved part of a huge object is there to be touched.
    void Resize(long length) {
        length_ = length;
        Poison(tail_, false);
        tail_ = length < 0 ? kReserved : std::min(kReserved, static_cast<std::size_t>(length));
        Poison(tail_, true);
    }
    [[nodiscard]] long Length() const { return length_; }
    [[nodiscard]] void* Memory() const { return memory_; }

private:
    static constexpr std::size_t kReserved = std::size_t{256} << 20U;

    void Poison([[maybe_unused]] std::size_t from, [[maybe_unused]] bool on) {
#ifdef QEV_POISON_TAILS
        // A window behind the end is enough, and keeps the shadow small.
        auto* const start = static_cast<unsigned char*>(memory_) + from;
        const auto window = std::min<std::size_t>(kReserved - from, 1U << 16U);
        if (on) {
            ASAN_POISON_MEMORY_REGION(start, window);
        } else {
            ASAN_UNPOISON_MEMORY_REGION(start, window);
        }
#endif
    }

    void* memory_;
    long length_ = 0;
    std::size_t tail_ = 0;
};

FakeKernel::FakeKernel() = default;
FakeKernel::~FakeKernel() {
    for (auto& entry : semaphores_) {
        ::sem_destroy(entry.second.get());
    }
}

void FakeKernel::FailNth(const std::string& operation, int nth, int error) {
    const std::lock_guard<std::mutex> lock(mutex_);
    failures_[operation] = {nth, error};
}

std::vector<std::string> FakeKernel::Calls() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
}

void FakeKernel::ForgetCalls() {
    const std::lock_guard<std::mutex> lock(mutex_);
    calls_.clear();
}

bool FakeKernel::Exists(const std::string& objectName) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return objects_.count(objectName) != 0;
}

long FakeKernel::LengthOf(const std::string& objectName) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = objects_.find(objectName);
    return found == objects_.end() ? -1 : found->second->Length();
}

unsigned char* FakeKernel::MemoryOf(const std::string& objectName) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<unsigned char*>(objects_.at(objectName)->Memory());
}

int FakeKernel::OpenDescriptors() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(descriptors_.size());
}

int FakeKernel::Mappings() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(mappings_.size());
}

bool FakeKernel::Refused(const std::string& operation, const std::string& arguments) {
    calls_.push_back(operation + "(" + arguments + ")");
    const auto failure = failures_.find(operation);
    if (failure == failures_.end() || --failure->second.countdown != 0) {
        return false;
    }
    errno = failure->second.error;
    failures_.erase(failure);
    return true;
}

std::shared_ptr<FakeKernel::Object> FakeKernel::ObjectAt(int fd) const {
    const auto found = descriptors_.find(fd);
    if (found == descriptors_.end()) {
        errno = EBADF;
        return nullptr;
    }
    return found->second;
}

int FakeKernel::DoShmOpen(const char* name, int flags, unsigned int mode) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (Refused("shm_open",
                std::string(name) + ", " + std::to_string(flags) + ", " + std::to_string(mode))) {
        return -1;
    }
    auto& object = objects_[name];
    if (!object) {
        if ((flags & O_CREAT) == 0) {
            objects_.erase(name);
            errno = ENOENT;
            return -1;
        }
        object = std::make_shared<Object>();
    }
    int fd = 3;
    while (descriptors_.count(fd) != 0) {
        ++fd;
    }
    descriptors_[fd] = object;
    return fd;
}

int FakeKernel::DoShmUnlink(const char* name) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (Refused("shm_unlink", name)) {
        return -1;
    }
    if (objects_.erase(name) == 0) {
        errno = ENOENT;
        return -1;
    }
    return 0;
}

int FakeKernel::DoFtruncate(int fd, long length) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (Refused("ftruncate", std::to_string(fd) + ", " + std::to_string(length))) {
        return -1;
    }
    const auto object = ObjectAt(fd);
    if (!object) {
        return -1;
    }
    object->Resize(length);
    return 0;
}

void* FakeKernel::DoMmap(void* address, unsigned long length, int protection, int flags, int fd,
                         long offset) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (Refused("mmap", std::string(address == nullptr ? "null" : "address") + ", " +
                            std::to_string(length) + ", " + std::to_string(protection) + ", " +
                            std::to_string(flags) + ", " + std::to_string(fd) + ", " +
                            std::to_string(offset))) {
        return MAP_FAILED;
    }
    const auto object = ObjectAt(fd);
    if (!object) {
        return MAP_FAILED;
    }
    mappings_.emplace(object->Memory(), object);
    return object->Memory();
}

int FakeKernel::DoMunmap(void* address, unsigned long length) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (Refused("munmap", "address, " + std::to_string(length))) {
        return -1;
    }
    const auto mapping = mappings_.find(address);
    if (mapping == mappings_.end()) {
        errno = EINVAL;
        return -1;
    }
    mappings_.erase(mapping);
    return 0;
}

int FakeKernel::DoClose(int fd) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (Refused("close", std::to_string(fd))) {
        return -1;
    }
    if (descriptors_.erase(fd) == 0) {
        errno = EBADF;
        return -1;
    }
    return 0;
}

sem_t* FakeKernel::DoSemOpen(const char* name, int flags) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (Refused("sem_open", std::string(name) + ", " + std::to_string(flags))) {
        return SEM_FAILED;
    }
    const auto found = semaphores_.find(name);
    if (found == semaphores_.end()) {
        errno = ENOENT;
        return SEM_FAILED;
    }
    return found->second.get();
}

sem_t* FakeKernel::DoSemOpenc(const char* name, int flags, unsigned int mode, unsigned int value) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (Refused("sem_openc", std::string(name) + ", " + std::to_string(flags) + ", " +
                                 std::to_string(mode) + ", " + std::to_string(value))) {
        return SEM_FAILED;
    }
    auto& semaphore = semaphores_[name];
    if (!semaphore) {
        semaphore = std::make_unique<sem_t>();
        ::sem_init(semaphore.get(), 0, value);
    }
    return semaphore.get();
}

int FakeKernel::DoSemClose(sem_t* /*sem*/) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return Refused("sem_close", "") ? -1 : 0;
}

int FakeKernel::DoSemUnlink(const char* name) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return Refused("sem_unlink", name) ? -1 : 0;
}

int FakeKernel::DoSemPost(sem_t* sem) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return Refused("sem_post", "") ? -1 : ::sem_post(sem);
}

// A wait on a semaphore at 0 would never end here: nobody else is there to post.
int FakeKernel::DoSemWait(sem_t* sem) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return Refused("sem_wait", "") ? -1 : ::sem_trywait(sem);
}

int FakeKernel::DoSemTryWait(sem_t* sem) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return Refused("sem_trywait", "") ? -1 : ::sem_trywait(sem);
}

int FakeKernel::DoSemTimedwait(sem_t* sem, std::chrono::duration<double> timeout) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (Refused("sem_timedwait", std::to_string(timeout.count()))) {
        return -1;
    }
    if (::sem_trywait(sem) == 0) {
        return 0;
    }
    errno = ETIMEDOUT;
    return -1;
}

int FakeKernel::DoSemGetValue(sem_t* sem, int* value) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return Refused("sem_getvalue", "") ? -1 : ::sem_getvalue(sem, value);
}

}  // namespace qel::test
