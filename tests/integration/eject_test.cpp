// Ejecting volumes for real: tmpfs mounts named like a disk's partitions, made in a private mount
// namespace of a forked child, are unmounted in the order the listing gives them. Needs root.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>

#include "../unit/test_support.h"
#include "framework/eject/eject.h"
#include "platform/service.h"
#include "platform/sleeper.h"
#include "platform/volumes.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

class RecordingSleeper : public platform::Sleeper {
public:
    void Usleep(std::uint32_t microseconds) override { sleeps.push_back(microseconds); }
    std::vector<std::uint32_t> sleeps;
};

// Gives the calling process mounts of its own; the test fails loudly when it cannot.
void PrivateMounts() {
    ASSERT_EQ(geteuid(), 0u) << "ejecting needs root for a private mount namespace";
    ASSERT_EQ(unshare(CLONE_NEWNS), 0) << "unshare(CLONE_NEWNS): " << std::strerror(errno);
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << std::strerror(errno);
}

void MountTmpfs(const std::string& device, const std::string& at) {
    std::filesystem::create_directories(at);
    ASSERT_EQ(mount(device.c_str(), at.c_str(), "tmpfs", 0, "size=64k"), 0) << at << ": " << std::strerror(errno);
}

bool Mounted(const std::string& at) {
    auto listing = platform::Use<platform::Volumes>().MountListing();
    return listing && listing->find(" on " + at + " (") != std::string::npos;
}

std::vector<std::string> EjectLines(const CapturingLogger& logger) {
    std::vector<std::string> lines;
    for (const auto& e : logger.entries)
        if (e.function == "QVK_Framework_EjectVolume" && (e.line == 29 || e.line == 32 || e.line == 36))
            lines.push_back(e.message.value_or(""));
    return lines;
}

TEST(EjectDiskForReal, UnmountsTheDisksPartitionsInListingOrderAfterOneDelay) {
    TempDir dir;
    const std::string d = dir.path();
    RunInChild([&] {
        PrivateMounts();
        if (HasFailure()) return;
        // Mounted out of name order: the listing's order is the order of mounting.
        MountTmpfs("/dev/qvkdisk2s2", d + "/second");
        MountTmpfs("/dev/qvkdisk2s1", d + "/Modem CD");
        MountTmpfs("/dev/qvkdisk21s1", d + "/loose (2)");
        MountTmpfs("/dev/qvkdisk2x1", d + "/other");
        MountTmpfs("/dev/qvkdisk3s1", d + "/third");
        MountTmpfs("victim", d + "/victim");
        // A name with a line feed must not pass for a listing line of the disk.
        MountTmpfs("evil", d + "/evil\n/dev/qvkdisk2s9 on " + d + "/victim");
        auto listing = platform::Use<platform::Volumes>().MountListing();
        ASSERT_TRUE(listing);
        EXPECT_THAT(*listing, HasSubstr("\n/dev/qvkdisk2s1 on " + d + "/Modem CD (tmpfs, rw,"));
        EXPECT_THAT(*listing, Not(HasSubstr("/dev/qvkdisk2s9")));

        RecordingSleeper sleeper;
        platform::Replace<platform::Sleeper> useSleeper(sleeper);
        CapturingLogger logger;
        EXPECT_TRUE(QVK_Framework_EjectDisk("qvkdisk2", 500000));
        EXPECT_THAT(sleeper.sleeps, ElementsAre(500000u));
        EXPECT_THAT(EjectLines(logger),
                    ElementsAre("Eject \"" + d + "/second\" succeeded", "Eject \"" + d + "/Modem CD\" succeeded",
                                "Eject \"" + d + "/loose (2)\" succeeded"));
        EXPECT_FALSE(Mounted(d + "/second"));
        EXPECT_FALSE(Mounted(d + "/Modem CD"));
        EXPECT_FALSE(Mounted(d + "/loose (2)"));
        EXPECT_TRUE(Mounted(d + "/other"));
        EXPECT_TRUE(Mounted(d + "/third"));
        EXPECT_TRUE(Mounted(d + "/victim"));

        EXPECT_FALSE(QVK_Framework_EjectDisk("qvkdisk2", 500000)) << "nothing is left to eject";
        EXPECT_THAT(sleeper.sleeps, ElementsAre(500000u));
    });
}

// A child that keeps the volume at `path` busy (as its working folder, or through an open file)
// until it is killed.
pid_t KeepBusy(const std::string& path, bool openFile) {
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    pid_t pid = fork();
    if (pid == 0) {
        if (openFile) {
            if (open((path + "/file").c_str(), O_CREAT | O_RDWR, 0600) < 0 || chdir("/") != 0) _exit(1);
        } else if (chdir(path.c_str()) != 0) {
            _exit(1);
        }
        if (write(ready[1], "x", 1) != 1) _exit(1);
        pause();
        _exit(0);
    }
    char c;
    EXPECT_EQ(read(ready[0], &c, 1), 1);
    close(ready[0]);
    close(ready[1]);
    return pid;
}

void Stop(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

TEST(EjectVolumeForReal, NamesTheProcessThatKeepsTheVolumeBusy) {
    TempDir dir;
    const std::string busy = dir.path() + "/busy volume";
    RunInChild([&] {
        PrivateMounts();
        if (HasFailure()) return;
        MountTmpfs("/dev/qvkdisk5s1", busy);
        CapturingLogger logger;

        // A folder on the volume is no mount point: nothing is ejected in its name.
        std::filesystem::create_directory(busy + "/folder");
        EXPECT_FALSE(QVK_Framework_EjectVolume(busy + "/folder"));
        EXPECT_TRUE(Mounted(busy));

        pid_t inside = KeepBusy(busy, false);
        EXPECT_FALSE(QVK_Framework_EjectVolume(busy));
        Stop(inside);
        pid_t holding = KeepBusy(busy, true);
        EXPECT_FALSE(QVK_Framework_EjectVolume(busy));
        Stop(holding);
        EXPECT_TRUE(QVK_Framework_EjectVolume(busy));
        EXPECT_FALSE(QVK_Framework_EjectVolume(dir.path() + "/missing"));

        EXPECT_THAT(EjectLines(logger),
                    ElementsAre("Eject \"" + busy + "/folder\" failed for unknown reason",
                                "Eject \"" + busy + "\" failed due to pid " + std::to_string(inside),
                                "Eject \"" + busy + "\" failed due to pid " + std::to_string(holding),
                                "Eject \"" + busy + "\" succeeded",
                                "Eject \"" + dir.path() + "/missing\" failed for unknown reason"));
        EXPECT_FALSE(Mounted(busy));
    });
}

}  // namespace
}  // namespace qvk::test
