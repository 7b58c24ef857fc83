// The home user's file-system identity, taken by one thread against the real kernel.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <future>
#include <string>
#include <thread>

#include "../unit/test_support.h"
#include "platform/home_user.h"

namespace qvk::test {
namespace {

constexpr unsigned kNobody = 65534;

// Creates the file; its owner, or "refused".
std::string MakeFile(const std::string& path) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) return "refused";
    close(fd);
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? std::to_string(st.st_uid) : "gone";
}

std::string ThreadGroups() {
    std::ifstream status("/proc/thread-self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("Groups:")) return line;
    return "";
}

class HomeUser : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(geteuid(), 0u) << "this test needs root to take another user's identity"; }
    void TearDown() override { platform::SetHomeUser(0); }
};

TEST_F(HomeUser, OnlyTheGuardingThreadActsAsTheUserAndOnlyWhileTheGuardLives) {
    TempDir dir;
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    std::string shared = dir.path() + "/shared";
    ASSERT_EQ(mkdir(shared.c_str(), 0777), 0);
    ASSERT_EQ(chmod(shared.c_str(), 0777), 0);
    std::string groups = ThreadGroups();
    // A thread that exists before the guard (a new one would inherit the guarding thread's identity).
    std::promise<void> go;
    std::string otherThread;
    std::thread other([&, started = go.get_future()]() mutable {
        started.wait();
        otherThread = MakeFile(shared + "/other-thread");
    });
    platform::SetHomeUser(kNobody);
    {
        platform::AsHomeUser asUser;
        ASSERT_TRUE(asUser.Active());
        EXPECT_EQ(MakeFile(dir.path() + "/root-only"), "refused");
        EXPECT_EQ(MakeFile(shared + "/mine"), std::to_string(kNobody));
        EXPECT_EQ(ThreadGroups(), "Groups:\t65534 ");
        go.set_value();
        other.join();
        EXPECT_EQ(otherThread, "0");
        {
            platform::AsHomeUser again;
            EXPECT_TRUE(again.Active());
        }
        EXPECT_EQ(MakeFile(shared + "/after-inner"), std::to_string(kNobody)) << "an inner guard keeps the identity";
    }
    EXPECT_EQ(MakeFile(dir.path() + "/root-only"), "0");
    EXPECT_EQ(ThreadGroups(), groups);

    // A user without an account gives no identity to act with.
    platform::SetHomeUser(3999999);
    EXPECT_FALSE(platform::AsHomeUser().Active());
    EXPECT_FALSE(platform::ExistsInHome(dir.path() + "/root-only"));
    platform::SetHomeUser(0);
    EXPECT_TRUE(platform::ExistsInHome(dir.path() + "/root-only"));
}

}  // namespace
}  // namespace qvk::test
