#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "SysIF.h"

namespace qel::test {

/// Kernel objects in this process's memory, in place of the real ones. Records every call and can
/// refuse any of them.
///
/// All mappings of one object start at one address, so that a race detector sees that nodes of one
/// process share them. Under AddressSanitizer the bytes behind an object's end are poisoned.
///
/// Thread use: free.
class FakeKernel : public SysIF {
public:
    FakeKernel();
    ~FakeKernel() override;

    /// Refuses the `nth` call from now of `operation` ("mmap", ...), 1 being the next, with
    /// `error`.
    void FailNth(const std::string& operation, int nth, int error);

    /// The calls so far, as "ftruncate(3, 1176)".
    [[nodiscard]] std::vector<std::string> Calls() const;
    void ForgetCalls();

    [[nodiscard]] bool Exists(const std::string& objectName) const;
    /// Length of an object in bytes, -1 if there is none.
    [[nodiscard]] long LengthOf(const std::string& objectName) const;
    /// First byte of an object, where all of its mappings are.
    [[nodiscard]] unsigned char* MemoryOf(const std::string& objectName) const;
    [[nodiscard]] int OpenDescriptors() const;
    [[nodiscard]] int Mappings() const;

private:
    class Object;
    struct Failure {
        int countdown;
        int error;
    };

    int DoShmOpen(const char* name, int flags, unsigned int mode) override;
    int DoShmUnlink(const char* name) override;
    int DoFtruncate(int fd, long length) override;
    void* DoMmap(void* address, unsigned long length, int protection, int flags, int fd,
                 long offset) override;
    int DoMunmap(void* address, unsigned long length) override;
    sem_t* DoSemOpen(const char* name, int flags) override;
    sem_t* DoSemOpenc(const char* name, int flags, unsigned int mode, unsigned int value) override;
    int DoSemClose(sem_t* sem) override;
    int DoSemUnlink(const char* name) override;
    int DoSemPost(sem_t* sem) override;
    int DoSemTimedwait(sem_t* sem, std::chrono::duration<double> timeout) override;
    int DoClose(int fd) override;
    int DoSemWait(sem_t* sem) override;
    int DoSemTryWait(sem_t* sem) override;
    int DoSemGetValue(sem_t* sem, int* value) override;

    /// Notes a call; true, with errno set, if it is to be refused.
    bool Refused(const std::string& operation, const std::string& arguments);
    std::shared_ptr<Object> ObjectAt(int fd) const;

    mutable std::mutex mutex_;
    std::vector<std::string> calls_;
    std::map<std::string, Failure> failures_;
    std::map<std::string, std::shared_ptr<Object>> objects_;
    std::map<int, std::shared_ptr<Object>> descriptors_;
    std::multimap<void*, std::shared_ptr<Object>> mappings_;
    std::map<std::string, std::unique_ptr<sem_t>> semaphores_;
};

}  // namespace qel::test
