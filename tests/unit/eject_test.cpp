// Ejecting a disk's volumes from the mount listing, through fake volumes that keep one journal
// with the sleeps.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <type_traits>

#include "framework/eject/eject.h"
#include "platform/sleeper.h"
#include "platform/volumes.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;
using namespace platform;

constexpr const char* kEjectSource = "Apple/../../../Framework/Library/Base/Apple/Eject";

// A USB service, a registry entry and their iterators are handles of their own kinds: one given
// where another is meant, or a bare number, does not compile.
static_assert(!std::is_invocable_v<decltype(&FindCDNode), UsbService> &&
              !std::is_invocable_v<decltype(&QVK_Framework_BSDNameForMedia), UsbService> &&
              !std::is_invocable_v<decltype(&FindCDNode), std::uint32_t>);
static_assert(!std::is_constructible_v<UsbService, RegistryEntry> &&
              !std::is_constructible_v<UsbService, UsbIterator> &&
              !std::is_constructible_v<RegistryEntry, RegistryIterator>);

class FakeVolumes : public Volumes, public Sleeper {
public:
    std::optional<std::string> listing;
    std::set<std::string> unknown;                  // paths that lead to no volume
    std::map<std::string, std::uint32_t> refusing;  // mount point -> dissenting process
    std::vector<std::string> journal;

    std::optional<std::string> MountListing() override {
        journal.push_back("listing");
        return listing;
    }
    std::optional<VolumeRef> VolumeForPath(const std::string& path) override {
        if (unknown.count(path)) return std::nullopt;
        return VolumeRef{path, "/dev/volume", 7};
    }
    bool EjectVolumeSync(const VolumeRef& volume, std::uint32_t& dissenter) override {
        journal.push_back("eject " + volume.mountPoint);
        auto it = refusing.find(volume.mountPoint);
        dissenter = it == refusing.end() ? 0 : it->second;
        return it == refusing.end();
    }
    void Usleep(std::uint32_t microseconds) override { journal.push_back("sleep " + std::to_string(microseconds)); }
};

struct EjectRun {
    bool result;
    std::vector<std::string> journal;
    std::vector<std::string> log;  // "function line message"
};

EjectRun Eject(FakeVolumes& volumes, const std::function<bool()>& call) {
    Replace<Volumes> useVolumes(volumes);
    Replace<Sleeper> useSleeper(volumes);
    CapturingLogger logger;
    volumes.journal.clear();
    EjectRun run{call(), {}, {}};
    run.journal = volumes.journal;
    for (const auto& e : logger.entries) {
        EXPECT_EQ(e.file, kEjectSource);
        EXPECT_EQ(e.type, "Trace");
        run.log.push_back(e.function + " " + std::to_string(e.line) + " " + e.message.value_or("<none>"));
    }
    return run;
}

TEST(EjectDisk, EjectsTheDisksVolumesInListingOrderAfterOneDelay) {
    FakeVolumes volumes;
    volumes.listing =
        "/dev/disk0s2 on / (hfs, local, journaled)\n"
        "/dev/disk2s1 on /Volumes/Modem CD (cd9660, local, nodev, nosuid, read-only)\n"
        "devfs on /dev (devfs, local, nobrowse)\n"
        "/dev/disk21s3 on /Volumes/Other (2) (hfs, local)\n"
        "/dev/disk2s2 at /Volumes/NotOn (hfs, local)\n"
        "/dev/disk2s3  on /Volumes/TwoBlanks (hfs, local)\n"
        "/dev/disk2x1 on /Volumes/OtherLetter (hfs, local)\n"
        "/dev/disk2s4 on Volumes/Relative (hfs, local)\n"
        "/dev/disk2s5 on /Volumes/NoOptions\n"
        "/dev/disk2s6 on  (hfs, local)\n"
        "/dev/disk2s7\n"
        "/dev/disk3s1 on /Volumes/Third (hfs, local)\n"
        "/dev/disk2 on /Volumes/Whole (hfs, local)";
    volumes.refusing["/Volumes/Other (2)"] = 4711;

    EjectRun run = Eject(volumes, [] { return QVK_Framework_EjectDisk("disk2", 500000); });
    EXPECT_TRUE(run.result) << "one ejection failed, the others did not";
    EXPECT_THAT(run.journal, ElementsAre("listing", "sleep 500000", "eject /Volumes/Modem CD",
                                         "eject /Volumes/Other (2)", "eject /Volumes/Whole"));
    EXPECT_THAT(
        run.log,
        ElementsAre("QVK_Framework_EjectDisk 48 disk2", "QVK_Framework_EjectVolume 17 /Volumes/Modem CD",
                    "QVK_Framework_EjectVolume 26 FSEjectVolumeSync()",
                    "QVK_Framework_EjectVolume 29 Eject \"/Volumes/Modem CD\" succeeded",
                    "QVK_Framework_EjectVolume 17 /Volumes/Other (2)",
                    "QVK_Framework_EjectVolume 26 FSEjectVolumeSync()",
                    "QVK_Framework_EjectVolume 32 Eject \"/Volumes/Other (2)\" failed due to pid 4711",
                    "QVK_Framework_EjectVolume 17 /Volumes/Whole", "QVK_Framework_EjectVolume 26 FSEjectVolumeSync()",
                    "QVK_Framework_EjectVolume 29 Eject \"/Volumes/Whole\" succeeded"));
}

TEST(EjectDisk, FalseWhenNothingWasEjected) {
    FakeVolumes volumes;
    auto disk2 = [] { return QVK_Framework_EjectDisk("disk2", 250000); };

    volumes.listing = std::nullopt;
    EjectRun run = Eject(volumes, disk2);
    EXPECT_FALSE(run.result);
    EXPECT_THAT(run.journal, ElementsAre("listing"));

    volumes.listing = "/dev/disk3s1 on /Volumes/Third (hfs, local)\n/dev/disk1 on /Volumes/One (hfs)\n";
    run = Eject(volumes, disk2);
    EXPECT_FALSE(run.result);
    EXPECT_THAT(run.journal, ElementsAre("listing")) << "no wait without a volume to eject";

    volumes.listing = "/dev/disk2s1 on /Volumes/A (hfs)\n/dev/disk2s2 on /Volumes/B (hfs)\n";
    volumes.refusing = {{"/Volumes/A", 0}};
    volumes.unknown = {"/Volumes/B"};
    run = Eject(volumes, disk2);
    EXPECT_FALSE(run.result);
    EXPECT_THAT(run.journal, ElementsAre("listing", "sleep 250000", "eject /Volumes/A"));
    EXPECT_EQ(run.log.back(), "QVK_Framework_EjectVolume 36 Eject \"/Volumes/B\" failed for unknown reason");
}

}  // namespace
}  // namespace qvk::test
