// Ejecting volumes for real: tmpfs mounts named like a disk's partitions, made in a private mount
// namespace of a forked child, are unmounted in the order the listing gives them. Needs root.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>

#include "../unit/test_support.h"
#include "framework/eject/eject.h"
#include "platform/sleeper.h"
#include "platform/volumes.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;

class RecordingSleeper : public platform::Sleeper {
public:
    void Usleep(std::uint32_t microseconds) override { sleeps.push_back(microseconds); }
    std::vector<std::uint32_t> sleeps;
};

void MountTmpfs(const std::string& device, const std::string& at) {
    std::filesystem::create_directories(at);
    ASSERT_EQ(mount(device.c_str(), at.c_str(), "tmpfs", 0, "size=64k"), 0) << at << ": " << std::strerror(errno);
}

TEST(EjectForReal, UnmountsTheDisksPartitionsInListingOrderAndNamesTheProcessThatKeepsOneBusy) {
    ASSERT_EQ(geteuid(), 0u) << "ejecting needs root for a private mount namespace";
    TempDir dir;
    const std::string d = dir.path();
    RunInChild([&] {
        ASSERT_EQ(unshare(CLONE_NEWNS), 0) << "unshare(CLONE_NEWNS): " << std::strerror(errno);
        ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << std::strerror(errno);
        // Mounted out of name order: the listing's order is the order of mounting.
        MountTmpfs("/dev/qvkdisk2s2", d + "/second");
        MountTmpfs("/dev/qvkdisk2s1", d + "/Modem CD");
        MountTmpfs("/dev/qvkdisk2x1", d + "/other");
        MountTmpfs("victim", d + "/victim");
        // A name with a line feed must not pass for a listing line of the disk.
        MountTmpfs("evil", d + "/evil\n/dev/qvkdisk2s9 on " + d + "/victim");
        // A process keeps the first partition busy through its working folder.
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        pid_t busy = fork();
        if (busy == 0) {
            if (chdir((d + "/second").c_str()) != 0 || write(ready[1], "x", 1) != 1) _exit(1);
            pause();
        }
        char c;
        ASSERT_EQ(read(ready[0], &c, 1), 1);

        RecordingSleeper sleeper;
        platform::Replace<platform::Sleeper> useSleeper(sleeper);
        CapturingLogger logger;
        EXPECT_TRUE(QVK_Framework_EjectDisk("qvkdisk2", 500000));
        kill(busy, SIGKILL);
        waitpid(busy, nullptr, 0);
        EXPECT_TRUE(QVK_Framework_EjectVolume(d + "/second"));
        EXPECT_FALSE(QVK_Framework_EjectVolume(d + "/victim/.."));
        EXPECT_FALSE(QVK_Framework_EjectDisk("qvkdisk2", 500000)) << "nothing is left to eject";
        EXPECT_THAT(sleeper.sleeps, ElementsAre(500000u));
        std::vector<std::string> outcomes;
        for (const auto& e : logger.entries)
            if (e.message && e.message->starts_with("Eject ")) outcomes.push_back(*e.message);
        EXPECT_THAT(outcomes,
                    ElementsAre("Eject \"" + d + "/second\" failed due to pid " + std::to_string(busy),
                                "Eject \"" + d + "/Modem CD\" succeeded", "Eject \"" + d + "/second\" succeeded",
                                "Eject \"" + d + "/victim/..\" failed for unknown reason"));
        auto listing = platform::Use<platform::Volumes>().MountListing();
        ASSERT_TRUE(listing);
        EXPECT_EQ(listing->find("qvkdisk2s"), std::string::npos);
        EXPECT_NE(listing->find("\nvictim on " + d + "/victim (tmpfs, rw,"), std::string::npos);
        EXPECT_NE(listing->find("\n/dev/qvkdisk2x1 on " + d + "/other ("), std::string::npos);
    });
}

}  // namespace
}  // namespace qvk::test
