// Ejecting a disk's volumes from the mount listing, through fake volumes that keep one journal
// with the sleeps.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "framework/eject/eject.h"
#include "platform/sleeper.h"
#include "platform/volumes.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;

class FakeVolumes : public platform::Volumes, public platform::Sleeper {
public:
    std::optional<std::string> listing;
    std::map<std::string, std::uint32_t> refusing;  // mount point -> dissenting process; 0: no volume
    std::vector<std::string> journal;

    std::optional<std::string> MountListing() override { return listing; }
    std::optional<platform::VolumeRef> VolumeForPath(const std::string& path) override {
        if (refusing.count(path) && refusing[path] == 0) return std::nullopt;
        return platform::VolumeRef{path, "/dev/volume", 7};
    }
    bool EjectVolumeSync(const platform::VolumeRef& volume, std::uint32_t& dissenter) override {
        journal.push_back("eject " + volume.mountPoint);
        dissenter = refusing.count(volume.mountPoint) ? refusing[volume.mountPoint] : 0;
        return dissenter == 0;
    }
    void Usleep(std::uint32_t microseconds) override { journal.push_back("sleep " + std::to_string(microseconds)); }
};

TEST(EjectDisk, EjectsTheDisksVolumesInListingOrderAfterOneDelayAndSaysWhetherAnyWent) {
    FakeVolumes volumes;
    platform::Replace<platform::Volumes> useVolumes(volumes);
    platform::Replace<platform::Sleeper> useSleeper(volumes);
    CapturingLogger logger;
    volumes.listing =
        "/dev/disk0s2 on / (hfs, local, journaled)\n"
        "/dev/disk2s1 on /Volumes/Modem CD (cd9660, local, nodev, nosuid, read-only)\n"
        "/dev/disk21s3 on /Volumes/Other (2) (hfs, local)\n"
        "/dev/disk2s2 at /Volumes/NotOn (hfs, local)\n"
        "/dev/disk2s3  on /Volumes/TwoBlanks (hfs, local)\n"
        "/dev/disk2x1 on /Volumes/OtherLetter (hfs, local)\n"
        "/dev/disk2s4 on Volumes/Relative (hfs, local)\n"
        "/dev/disk2s5 on /Volumes/NoOptions\n"
        "/dev/disk2s7\n"
        "/dev/disk3s1 on /Volumes/Third (hfs, local)\n"
        "/dev/disk2 on /Volumes/Whole (hfs, local)";
    volumes.refusing["/Volumes/Other (2)"] = 4711;
    EXPECT_TRUE(QVK_Framework_EjectDisk("disk2", 500000)) << "one ejection failed, the others did not";
    EXPECT_THAT(volumes.journal, ElementsAre("sleep 500000", "eject /Volumes/Modem CD", "eject /Volumes/Other (2)",
                                             "eject /Volumes/Whole"));
    EXPECT_THAT(logger.LogLines(),
                ::testing::Contains(
                    std::string("Apple/../../../Framework/Library/Base/Apple/Eject:32(Trace): "
                                "QVK_Framework_EjectVolume: Eject \"/Volumes/Other (2)\" failed due to pid 4711")));
    EXPECT_EQ(logger.LogLines().back(),
              "Apple/../../../Framework/Library/Base/Apple/Eject:29(Trace): "
              "QVK_Framework_EjectVolume: Eject \"/Volumes/Whole\" succeeded");

    volumes.journal.clear();
    volumes.listing = "/dev/disk2s1 on /Volumes/A (hfs)\n/dev/disk2s2 on /Volumes/B (hfs)\n/dev/disk1 on /C (hfs)\n";
    volumes.refusing = {{"/Volumes/A", 1}, {"/Volumes/B", 0}};
    EXPECT_FALSE(QVK_Framework_EjectDisk("disk2", 250000));
    EXPECT_THAT(volumes.journal, ElementsAre("sleep 250000", "eject /Volumes/A"));
    EXPECT_EQ(logger.MessagesOf("QVK_Framework_EjectVolume").back(), "Eject \"/Volumes/B\" failed for unknown reason");
    volumes.journal.clear();
    EXPECT_FALSE(QVK_Framework_EjectDisk("disk1s", 250000)) << "no wait without a volume to eject";
    volumes.listing = std::nullopt;
    EXPECT_FALSE(QVK_Framework_EjectDisk("disk2", 250000));
    EXPECT_TRUE(volumes.journal.empty());
}

}  // namespace
}  // namespace qvk::test
