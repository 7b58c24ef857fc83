// Ejecting a disk's volumes for real: tmpfs mounts named like its partitions, made in a private
// mount namespace of a forked child, are found in the kernel's listing and unmounted in its order.
// Needs root.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>

#include "../unit/test_support.h"
#include "framework/eject/eject.h"
#include "platform/linux/mounts_file.h"
#include "platform/volumes.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;

void MountTmpfs(const std::string& device, const std::string& at) {
    std::filesystem::create_directories(at);
    ASSERT_EQ(mount(device.c_str(), at.c_str(), "tmpfs", 0, "size=64k"), 0) << at << ": " << std::strerror(errno);
}

TEST(EjectDisk, UnmountsTheDisksPartitionsInListingOrderAndNamesTheProcessThatKeepsOneBusy) {
    ASSERT_EQ(geteuid(), 0u) << "ejecting needs root for a private mount namespace";
    TempDir dir;
    const std::string d = dir.path();
    RunInChild([&] {
        ASSERT_EQ(unshare(CLONE_NEWNS), 0) << "unshare(CLONE_NEWNS): " << std::strerror(errno);
        ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << std::strerror(errno);
        // Names that go on from the disk's with "s" and digits are its partitions, the whole disk
        // included; other names, and names that make a line of another shape, are not. A name
        // with a line feed must not pass for a line of its own.
        const std::vector<std::pair<std::string, std::string>> mounts = {
            {"/dev/qvkdisk2s9", "/busy"},   {"/dev/qvkdisk21s3", "/Other (2)"},
            {"/dev/qvkdisk2x1", "/letter"}, {"/dev/qvkdisk2s2 at", "/at"},
            {"/dev/qvkdisk3s1", "/third"},  {"/dev/qvkdisk2s4 on relative", "/relative"},
            {"victim", "/victim"},          {"evil", "/evil\n/dev/qvkdisk2s5 on " + d + "/victim"},
            {"/dev/qvkdisk2", "/Modem CD"}};
        for (const auto& [device, at] : mounts) MountTmpfs(device, d + at);
        // A process keeps the first partition busy through its working folder.
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        pid_t busy = fork();
        if (busy == 0) {
            if (chdir((d + "/busy").c_str()) != 0 || write(ready[1], "x", 1) != 1) _exit(1);
            pause();
        }
        char c;
        ASSERT_EQ(read(ready[0], &c, 1), 1);

        CapturingLogger logger;
        EXPECT_TRUE(QVK_Framework_EjectDisk("qvkdisk2", 1)) << "two of three went";
        EXPECT_FALSE(QVK_Framework_EjectDisk("qvkdisk2", 0)) << "the one left is busy";
        kill(busy, SIGKILL);
        waitpid(busy, nullptr, 0);
        EXPECT_FALSE(QVK_Framework_EjectVolume(d + "/victim/.."));
        EXPECT_TRUE(QVK_Framework_EjectVolume(d + "/busy"));
        auto eject = [&](int line, const std::string& at, const std::string& outcome) {
            return "Apple/../../../Framework/Library/Base/Apple/Eject:" + std::to_string(line) +
                   "(Trace): QVK_Framework_EjectVolume: Eject \"" + d + at + "\" " + outcome;
        };
        const std::string dissent = "failed due to pid " + std::to_string(busy);
        std::vector<std::string> outcomes;
        for (const std::string& line : logger.LogLines())
            if (line.find(": Eject \"") != std::string::npos) outcomes.push_back(line);
        EXPECT_THAT(outcomes,
                    ElementsAre(eject(32, "/busy", dissent), eject(29, "/Other (2)", "succeeded"),
                                eject(29, "/Modem CD", "succeeded"), eject(32, "/busy", dissent),
                                eject(36, "/victim/..", "failed for unknown reason"), eject(29, "/busy", "succeeded")));
    });
    // Escapes the kernel would not write are kept as they are; a line of too few fields is left out.
    EXPECT_EQ(platform::MountListingOf("a\\040b /m\\400\\08\\0 tmpfs rw 0 0\nshort line\n"),
              "a b on /m\\400\\08\\0 (tmpfs, rw)\n");
}

}  // namespace
}  // namespace qvk::test
