// Finding the CD medium below a registry entry, and ejecting a disk's volumes from the mount
// listing, through a fake registry and fake volumes that keep one journal with the sleeps.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "framework/eject/eject.h"
#include "platform/sleeper.h"
#include "platform/volumes.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using namespace platform;

constexpr const char* kEjectSource = "Apple/../../../Framework/Library/Base/Apple/Eject";

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

    volumes.listing = "/dev/disk2s1 on /Volumes/Caf\xe9 (hfs, local)\n";
    run = Eject(volumes, disk2);
    EXPECT_FALSE(run.result);
    EXPECT_THAT(run.journal, ElementsAre("listing")) << "a listing that is no UTF-8 is not looked at";

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

    run = Eject(volumes, [] { return QVK_Framework_EjectDisk("disk2", 0); });
    EXPECT_THAT(run.journal, ElementsAre("listing", "eject /Volumes/A")) << "no delay, no sleep";
}

// A registry tree: each node may be a CD medium with a BSD name, and may refuse its children.
class FakeRegistry : public IoRegistry {
public:
    struct Node {
        std::vector<int> children;
        bool cd = false;
        std::string bsdName;
        IoReturn childError = kIOReturnSuccess;
    };
    static Node Parent(std::vector<int> children) { return {std::move(children), false, "", kIOReturnSuccess}; }
    static Node CD(std::string name) { return {{}, true, std::move(name), kIOReturnSuccess}; }
    static Node Refusing(IoReturn error) { return {{}, false, "", error}; }
    std::map<int, Node> nodes;
    int fetched = 0;

    IoObject Entry(int node) { return Hand(node, {}); }
    std::set<IoObject> Outstanding() const {
        std::set<IoObject> out;
        for (const auto& [handle, object] : objects_) out.insert(handle);
        return out;
    }

    IoObject RegistryEntryFromPath(const std::string&) override { return 0; }
    IoReturn RegistryEntryGetChildIterator(IoObject entry, IoIterator& iterator) override {
        const Node& node = nodes.at(objects_.at(entry).node);
        if (node.childError != kIOReturnSuccess) return node.childError;
        iterator = Hand(-1, node.children);
        return kIOReturnSuccess;
    }
    IoObject IteratorNext(IoIterator iterator) override {
        auto& pending = objects_.at(iterator).pending;
        if (pending.empty()) return 0;
        ++fetched;
        int next = pending.front();
        pending.erase(pending.begin());
        return Hand(next, {});
    }
    bool ObjectConformsTo(IoObject entry, const std::string& className) override {
        return className == kCDMediaClass && nodes.at(objects_.at(entry).node).cd;
    }
    std::optional<Value> RegistryEntryCreateCFProperty(IoObject entry, const std::string& key) override {
        const Node& node = nodes.at(objects_.at(entry).node);
        if (key != kBSDNameKey || node.bsdName.empty()) return std::nullopt;
        return Value(node.bsdName);
    }
    void ObjectRelease(IoObject object) override { EXPECT_EQ(objects_.erase(object), 1u) << "released twice"; }

private:
    struct Object {
        int node;
        std::vector<int> pending;
    };
    IoObject Hand(int node, std::vector<int> pending) {
        objects_[++next_] = {node, std::move(pending)};
        return next_;
    }
    IoObject next_ = 500;
    std::map<IoObject, Object> objects_;
};

TEST(FindCDNode, DepthFirstTheFirstHitWinsAndEverythingElseIsReleased) {
    FakeRegistry registry;
    // 1 -> (2 -> (4, 5 = sr1), 3 = sr0): depth first finds sr1 before sr0.
    using R = FakeRegistry;
    registry.nodes = {
        {1, R::Parent({2, 3})}, {2, R::Parent({4, 5})}, {3, R::CD("sr0")}, {4, R::Parent({})}, {5, R::CD("sr1")}};
    Replace<IoRegistry> use(registry);
    IoObject root = registry.Entry(1);
    EXPECT_EQ(QVK_Framework_BSDNameForMedia(root), "sr1");
    EXPECT_EQ(registry.fetched, 3) << "nothing is fetched after the hit";
    EXPECT_EQ(registry.Outstanding(), std::set<IoObject>{root});

    IoObject node = FindCDNode(root);
    ASSERT_NE(node, 0u);
    EXPECT_EQ(registry.Outstanding(), (std::set<IoObject>{root, node})) << "the hit belongs to the caller";
    registry.ObjectRelease(node);

    // The entry itself is not looked at, only what lies below it.
    EXPECT_EQ(QVK_Framework_BSDNameForMedia(registry.Entry(3)), std::nullopt);
    registry.nodes[6] = R::Parent({3});
    EXPECT_EQ(QVK_Framework_BSDNameForMedia(registry.Entry(6)), "sr0");
}

TEST(FindCDNode, ChildrenThatCannotBeHadAreLoggedAndPassedOver) {
    FakeRegistry registry;
    using R = FakeRegistry;
    registry.nodes = {{1, R::Parent({2, 3})}, {2, R::Refusing(kIOReturnError)},    {3, R::Parent({4})},
                      {4, R::CD("sr2")},      {7, R::Refusing(kIOReturnNoDevice)}, {8, R::Parent({2})}};
    Replace<IoRegistry> use(registry);
    CapturingLogger logger;
    EXPECT_EQ(QVK_Framework_BSDNameForMedia(registry.Entry(1)), "sr2");
    EXPECT_EQ(QVK_Framework_BSDNameForMedia(registry.Entry(7)), std::nullopt);
    EXPECT_EQ(QVK_Framework_BSDNameForMedia(registry.Entry(8)), std::nullopt) << "no CD medium below";
    std::vector<std::string> lines;
    for (const auto& e : logger.entries) {
        EXPECT_EQ(e.function, "FindCDNode");
        EXPECT_EQ(e.file, kEjectSource);
        EXPECT_EQ(e.line, 173u);
        lines.push_back(e.message.value_or(""));
    }
    EXPECT_THAT(lines,
                ElementsAre("Unable to get children: ffffffffe00002bc", "Unable to get children: kIOReturnNoDevice",
                            "Unable to get children: ffffffffe00002bc"));
    EXPECT_EQ(registry.Outstanding().size(), 3u) << "only the three entries made by the test";
}

}  // namespace
}  // namespace qvk::test
