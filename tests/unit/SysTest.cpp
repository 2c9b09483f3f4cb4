// The real system calls: each operation against real kernel objects, in result and errno.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "ProcessState.h"
#include "Sys.h"
#include "SysFactory.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

class RealSys : public testing::Test {
protected:
    template <typename Call>
    static void ExpectRefused(int error, const Call& call) {
        errno = 0;
        EXPECT_EQ(-1, call());
        EXPECT_EQ(error, errno);
    }

    UniqueRingName name_;
    std::string object_ = name_.ObjectName();
    std::shared_ptr<SysIF> sys_ = SysFactory::Create("");
};

TEST(SystemCallFactory, EveryCallMakesAWorkingSysOfItsOwnWhateverTheName) {
    const auto first = SysFactory::Create("");
    const auto second = SysFactory::Create("");
    const auto named = SysFactory::Create("any other name");
    EXPECT_NE(first, second);
    EXPECT_NE(first, named);
    EXPECT_EQ(1, named.use_count());
    for (const auto& sys : {first, second, named}) {
        EXPECT_NE(nullptr, std::dynamic_pointer_cast<Sys>(sys));
        errno = 0;
        EXPECT_EQ(-1, sys->close(-1));
        EXPECT_EQ(EBADF, errno);
    }
}

TEST_F(RealSys, SharedMemoryIsOpenedSizedMappedAndUnlinked) {
    const mode_t mask = ::umask(0);
    const int fd = sys_->shm_open(object_.c_str(), O_RDWR | O_CREAT | O_EXCL, 0640);
    ::umask(mask);
    ASSERT_NE(-1, fd);
    EXPECT_EQ(0, sys_->ftruncate(fd, 8192));
    struct stat status {};
    ASSERT_EQ(0, ::fstat(fd, &status));
    EXPECT_EQ(8192, status.st_size);
    EXPECT_EQ(0640U, status.st_mode & 0777U);

    void* const whole = sys_->mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ASSERT_NE(MAP_FAILED, whole);
    void* const second = sys_->mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 4096);
    ASSERT_NE(MAP_FAILED, second);
    std::memcpy(static_cast<char*>(whole) + 4096, "across", 7);
    EXPECT_STREQ("across", static_cast<char*>(second));
    EXPECT_EQ(0, sys_->munmap(second, 4096));
    EXPECT_EQ(0, sys_->close(fd));
    std::memcpy(whole, "still mapped", 13);
    EXPECT_EQ(0, sys_->munmap(whole, 8192));

    EXPECT_EQ(0, sys_->shm_unlink(object_.c_str()));
    ExpectRefused(ENOENT, [&] { return sys_->shm_open(object_.c_str(), O_RDWR, 0); });
}

TEST_F(RealSys, FixedAddressOfAMappingIsPassedOn) {
    void* const address = sys_->mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, address);
    EXPECT_EQ(address,
              sys_->mmap(address, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0));
    EXPECT_EQ(0, sys_->munmap(address, 4096));
}

TEST_F(RealSys, RefusalsOfSharedMemoryAreHandedBackWithTheirErrno) {
    const int fd = sys_->shm_open(object_.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_NE(-1, fd);
    ExpectRefused(EEXIST,
                  [&] { return sys_->shm_open(object_.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600); });
    ExpectRefused(EINVAL, [&] { return sys_->shm_open("/a/b", O_RDWR | O_CREAT, 0600); });
    ExpectRefused(EINVAL, [&] { return sys_->ftruncate(fd, -1); });
    ExpectRefused(EBADF, [&] { return sys_->ftruncate(-1, 1); });
    errno = 0;
    EXPECT_EQ(MAP_FAILED, sys_->mmap(nullptr, 0, PROT_READ, MAP_SHARED, fd, 0));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(MAP_FAILED, sys_->mmap(nullptr, 4096, PROT_READ, MAP_SHARED, -1, 0));
    EXPECT_EQ(EBADF, errno);
    ExpectRefused(EINVAL, [&] { return sys_->munmap(nullptr, 0); });
    EXPECT_EQ(0, sys_->close(fd));
    ExpectRefused(EBADF, [&] { return sys_->close(fd); });
    EXPECT_EQ(0, sys_->shm_unlink(object_.c_str()));
    ExpectRefused(ENOENT, [&] { return sys_->shm_unlink(object_.c_str()); });
}

/// A named semaphore that goes with its test.
class RealSemaphore : public RealSys {
public:
    ~RealSemaphore() override {
        sys_->sem_unlink(Name());
        if (semaphore_ != SEM_FAILED) {
            sys_->sem_close(semaphore_);
        }
    }

protected:
    RealSemaphore() { semaphore_ = sys_->sem_openc(Name(), O_CREAT | O_EXCL, 0600, 2); }
    [[nodiscard]] const char* Name() const { return object_.c_str(); }
    int Value() {
        int value = -1;
        EXPECT_EQ(0, sys_->sem_getvalue(semaphore_, &value));
        return value;
    }

    sem_t* semaphore_ = SEM_FAILED;
};

TEST_F(RealSemaphore, FourArgumentsCreateWithModeAndValue) {
    ASSERT_NE(SEM_FAILED, semaphore_);
    EXPECT_EQ(2, Value());
    struct stat status {};
    ASSERT_EQ(0, ::stat(("/dev/shm/sem." + std::string(Name() + 1)).c_str(), &status));
    EXPECT_EQ(0600U, status.st_mode & 0777U);
    errno = 0;
    EXPECT_EQ(SEM_FAILED, sys_->sem_openc(Name(), O_CREAT | O_EXCL, 0600, 9));
    EXPECT_EQ(EEXIST, errno);
    const UniqueRingName other;
    errno = 0;
    EXPECT_EQ(SEM_FAILED, sys_->sem_openc(other.ObjectName().c_str(), O_CREAT, 0600, 0x80000000U));
    EXPECT_EQ(EINVAL, errno);
    sys_->sem_unlink(other.ObjectName().c_str());  // should it have been made after all
}

TEST_F(RealSemaphore, TwoArgumentsOpenWhatIsThere) {
    sem_t* const again = sys_->sem_open(Name(), 0);
    ASSERT_NE(SEM_FAILED, again);
    EXPECT_EQ(0, sys_->sem_post(again));
    EXPECT_EQ(3, Value());
    EXPECT_EQ(0, sys_->sem_close(again));
    EXPECT_EQ(0, sys_->sem_unlink(Name()));
    errno = 0;
    EXPECT_EQ(SEM_FAILED, sys_->sem_open(Name(), 0));
    EXPECT_EQ(ENOENT, errno);
    ExpectRefused(ENOENT, [&] { return sys_->sem_unlink(Name()); });
}

TEST_F(RealSemaphore, IsMappedUntilItIsClosed) {
    const auto mapped = [] { return HoldingsOf("/dev/shm/sem.").mappings; };
    const int before = mapped();
    EXPECT_EQ(0, sys_->sem_close(semaphore_));
    semaphore_ = SEM_FAILED;
    EXPECT_EQ(mapped(), before - 1);
}

TEST_F(RealSemaphore, WaitsTakeUnitsAndPostsGiveThem) {
    EXPECT_EQ(0, sys_->sem_wait(semaphore_));
    EXPECT_EQ(1, Value());
    EXPECT_EQ(0, sys_->sem_trywait(semaphore_));
    EXPECT_EQ(0, Value());
    ExpectRefused(EAGAIN, [&] { return sys_->sem_trywait(semaphore_); });
    EXPECT_EQ(0, sys_->sem_post(semaphore_));
    EXPECT_EQ(1, Value());
}

TEST_F(RealSemaphore, PostPastTheHighestValueIsRefused) {
    sem_t full;
    ASSERT_EQ(0, ::sem_init(&full, 0, 0x7FFFFFFF));
    ExpectRefused(EOVERFLOW, [&] { return sys_->sem_post(&full); });
    ::sem_destroy(&full);
}

TEST_F(RealSemaphore, TimeoutOfZeroOrLessTakesAUnitAtOnceOrTimesOut) {
    for (const double seconds : {0.0, -1.0}) {
        const std::chrono::duration<double> timeout(seconds);
        EXPECT_EQ(0, sys_->sem_timedwait(semaphore_, timeout));
    }
    EXPECT_EQ(0, Value());
    for (const double seconds : {0.0, -1.0, -1e6}) {
        ExpectRefused(ETIMEDOUT, [&] {
            return sys_->sem_timedwait(semaphore_, std::chrono::duration<double>(seconds));
        });
    }
}

TEST_F(RealSemaphore, ShortTimeoutEndsWithTheTimeoutError) {
    while (sys_->sem_trywait(semaphore_) == 0) {
    }
    ExpectRefused(ETIMEDOUT, [&] {
        return sys_->sem_timedwait(semaphore_, std::chrono::duration<double>(0.001));
    });
}

TEST_F(RealSemaphore, TimeoutThatIsNoTimeIsRefusedByTheSystem) {
    for (const double seconds :
         {std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
          std::numeric_limits<double>::quiet_NaN(), 1e300, -1e300, 1e20, -1e20}) {
        ExpectRefused(EINVAL, [&] {
            return sys_->sem_timedwait(semaphore_, std::chrono::duration<double>(seconds));
        });
    }
    EXPECT_EQ(2, Value());
}

}  // namespace
}  // namespace qel::test
