#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "MachineCheck.h"
#include "UserText.h"

namespace qel::test {
namespace {

using testing::Contains;
using testing::Not;

constexpr uid_t kPerson = 54321;
constexpr uid_t kSystemUser = 999;

/// A folder in which the machine's settings are forged.
class SettingsOfTheMachine : public testing::Test {
public:
    ~SettingsOfTheMachine() override {
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }

protected:
    SettingsOfTheMachine() : root_(testing::TempDir() + "qev-test-machine-XXXXXX") {
        EXPECT_NE(mkdtemp(root_.data()), nullptr);
        Set("proc/sys/fs/protected_hardlinks", "1\n");
        Set("proc/sys/fs/protected_symlinks", "1\n");
        Set("run/systemd/system/here", "");
        Set("run/systemd/users/here", "");
        Set("var/lib/systemd/linger/" + UserText(kPerson), "");
    }
    void Set(const std::string& path, const std::string& content) const {
        const std::filesystem::path file = std::filesystem::path(root_) / path;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << content;
    }
    void Unset(const std::string& path) const {
        std::filesystem::remove_all(std::filesystem::path(root_) / path);
    }
    /// Of settings: room in /dev/shm and other users' objects are as they are.
    [[nodiscard]] std::vector<std::string> Codes() const {
        std::vector<std::string> codes;
        for (const Finding& finding :
             CheckMachine({root_, std::vector<uid_t>{kPerson, kSystemUser}})) {
            EXPECT_EQ(finding.object, "machine");
            codes.push_back(finding.code);
        }
        return codes;
    }

private:
    std::string root_;
};

TEST_F(SettingsOfTheMachine, ThatAreAsTheyShouldBeFindNothing) {
    EXPECT_THAT(Codes(), Not(Contains("protection-off")));
    EXPECT_THAT(Codes(), Not(Contains("cannot-be-seen")));
    EXPECT_THAT(Codes(), Not(Contains("tidied-up")));
    EXPECT_THAT(Codes(), Not(Contains("removed-at-logout")));
}

TEST_F(SettingsOfTheMachine, ThatLetOthersLinkFilesAreTold) {
    for (const char* name : {"protected_hardlinks", "protected_symlinks"}) {
        Set(std::string("proc/sys/fs/") + name, "0\n");
        EXPECT_THAT(Codes(), Contains("protection-off"));
        Unset(std::string("proc/sys/fs/") + name);
        EXPECT_THAT(Codes(), Contains("cannot-be-seen"));
        Set(std::string("proc/sys/fs/") + name, "1\n");
    }
}

TEST_F(SettingsOfTheMachine, ThatTidyUpLockFilesAreTold) {
    const char* const path = "usr/lib/tmpfiles.d/tmp.conf";
    for (const char* line : {"q /tmp 1777 root root 10d\n", "D /tmp 1777 root root 0\n"}) {
        Set(path, std::string("# ages\n") + line);
        EXPECT_THAT(Codes(), Contains("tidied-up"));
    }
    Set("etc/tmpfiles.d/qev.conf", "x /tmp/*_shm.lock\n");
    EXPECT_THAT(Codes(), Not(Contains("tidied-up")));
    Unset("etc/tmpfiles.d/qev.conf");
    for (const char* line : {"q /tmp 1777 root root -\n", "q /tmp 1777 root root\n",
                             "q /var/tmp 1777 root root 30d\n", "x /tmp 1777 root root 10d\n"}) {
        Set(path, line);
        EXPECT_THAT(Codes(), Not(Contains("tidied-up"))) << line;
    }
    Set(path, "q /tmp 1777 root root 10d\n");
    Set("etc/tmpfiles.d/tmp.conf", "");  // takes the place of the other
    EXPECT_THAT(Codes(), Not(Contains("tidied-up")));
    Unset("etc/tmpfiles.d/tmp.conf");
    Unset("run/systemd/system");  // nobody reads them
    EXPECT_THAT(Codes(), Not(Contains("tidied-up")));
}

TEST_F(SettingsOfTheMachine, ThatRemoveObjectsAtLogoutAreToldToWhomTheyConcern) {
    Unset("var/lib/systemd/linger");
    const auto counted = [this] {
        const auto codes = Codes();
        return std::count(codes.begin(), codes.end(), "removed-at-logout");
    };
    EXPECT_EQ(counted(), 1);
    Set("etc/systemd/logind.conf", "[Login]\n#RemoveIPC=no\n");
    EXPECT_EQ(counted(), 1);
    Set("etc/systemd/logind.conf", "[Login]\n RemoveIPC = no\n");
    EXPECT_EQ(counted(), 0);
    Set("etc/systemd/logind.conf.d/50.conf", "[Login]\nRemoveIPC=yes\n");
    EXPECT_EQ(counted(), 1);
    Set("run/systemd/logind.conf.d/90.conf", "[Login]\nRemoveIPC=no\n");
    EXPECT_EQ(counted(), 0);
    Set("run/systemd/logind.conf.d/90.conf", "");
    EXPECT_EQ(counted(), 1);
    Unset("run/systemd/users");  // there is no logind
    EXPECT_EQ(counted(), 0);
}

}  // namespace
}  // namespace qel::test
