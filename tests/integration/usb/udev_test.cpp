// udev through umockdev: the USB registry (present devices, later ones in batches through the run
// loop, removals, the iterator rule), the failures of opening a device on its node, a modem's CD
// medium among its children, and the USB launcher module under a burst of events.
#include <gmock/gmock.h>
#include <malloc.h>
#include <umockdev.h>

#include <cstdio>

#include "../../unit/test_support.h"
#include "framework/eject/eject.h"
#include "framework/ports/usb_device.h"
#include "launcher/usb_launcher.h"
#include "platform/run_loop.h"
#include "platform/sleeper.h"
#include "simulated_usb_bus.h"

namespace qvk::test {
namespace {

using platform::kPublishNotification, platform::kTerminatedNotification;
using ::testing::ElementsAre;

constexpr const char* kPublish = "-[QVK_Framework_Port_Module_USBLauncher QVK_Framework_PortModule_Publish:]";

platform::Usb& Registry() { return platform::Use<platform::Usb>(); }
platform::IoRegistry& Entries() { return platform::Use<platform::IoRegistry>(); }
bool Serve(const std::function<bool()>& done) { return platform::Use<platform::RunLoop>().RunUntil(done, 5.0); }

// The names of the devices an iterator holds, as "first second ...".
std::string Drain(platform::UsbIterator iterator) {
    std::string batch;
    while (platform::UsbService s = Registry().IteratorNext(iterator)) {
        batch +=
            (batch.empty() ? "" : " ") + std::filesystem::path(*Registry().RegistryEntryGetPath(s)).filename().string();
        Registry().ObjectRelease(s);
    }
    return batch;
}

// Records each batch it is called with, drained, or "lazy" when it leaves the services.
struct Recorder {
    bool drain = true;
    std::vector<std::string> batches;
    static void Callback(void* self, platform::UsbIterator iterator) {
        auto* r = static_cast<Recorder*>(self);
        r->batches.push_back(r->drain ? Drain(iterator) : "lazy");
    }
};

TEST(UsbRegistry, PresentDevicesComeWithTheIteratorLaterOnesInBatchesAndOnlyADrainedIteratorIsCalled) {
    SimulatedUsbBus bus;
    std::string first = bus.Plug("first", 0x19d2, 0x9001);
    bus.Plug("other", 0x0af0, 0x6971);
    auto port = Registry().NotificationPortCreate(), closed = Registry().NotificationPortCreate();
    ASSERT_TRUE(port->AddSourceToMainRunLoop() && closed->AddSourceToMainRunLoop());
    Recorder published, terminated, lazy, gone;
    platform::UsbIterator it, lazyIt;
    auto arm = [&](platform::NotificationPort& p, const char* type, const Value& matching, Recorder& r) {
        return p.AddMatchingNotification(type, matching, Recorder::Callback, &r, it);
    };
    EXPECT_FALSE(arm(*port, "IOServiceNoSuchNotification", UsbMatching(0x19d2, 0x9001), published));
    ASSERT_TRUE(arm(*port, kPublishNotification, UsbMatching(0x19d2, 0x9001), published));
    EXPECT_EQ(Drain(it), "first") << "only the matching device that is present";
    ASSERT_TRUE(arm(*port, kTerminatedNotification, UsbMatching(0x19d2, 0x9001), terminated));
    EXPECT_EQ(Drain(it), "");
    ASSERT_TRUE(arm(*closed, kPublishNotification, UsbMatching(0x19d2, 0x9001), gone));
    closed.reset();
    ASSERT_TRUE(arm(*port, kPublishNotification, UsbMatching(0xabcd, 0xef01), lazy));
    lazyIt = it;

    for (const char* name : {"second", "third"}) bus.Plug(name, 0x19d2, 0x9001);
    bus.Plug("lazy1", 0xabcd, 0xef01);
    ASSERT_TRUE(Serve([&] { return !published.batches.empty(); }));
    EXPECT_THAT(published.batches, ElementsAre("second third")) << "devices that arrive together";
    EXPECT_THAT(gone.batches, ::testing::IsEmpty()) << "a destroyed port hears nothing";
    EXPECT_THAT(lazy.batches, ::testing::IsEmpty()) << "an iterator never drained is not armed";
    EXPECT_EQ(Drain(lazyIt), "lazy1");

    lazy.drain = false;
    bus.Plug("lazy2", 0xabcd, 0xef01);
    ASSERT_TRUE(Serve([&] { return lazy.batches.size() == 1; }));
    bus.Plug("lazy3", 0xabcd, 0xef01);
    // Events come in order: once the removal is seen, "lazy3" was handled.
    bus.Unplug(first);
    ASSERT_TRUE(Serve([&] { return !terminated.batches.empty(); }));
    EXPECT_EQ(lazy.batches.size(), 1u) << "not drained, not called again";
    EXPECT_EQ(Drain(lazyIt), "lazy2 lazy3");
    EXPECT_THAT(terminated.batches, ElementsAre("first"));

    // Only dictionaries of the USB device class are taken; the class alone matches every device.
    EXPECT_FALSE(arm(*port, kPublishNotification, *Registry().ServiceMatching("IOMedia"), lazy));
    ASSERT_TRUE(arm(*port, kPublishNotification, *Registry().ServiceMatching(platform::kUsbDeviceClass), lazy));
    EXPECT_EQ(Drain(it), "lazy1 lazy2 lazy3 other second third");
}

// The waits between attempts, recorded instead of waited for.
struct Waits : platform::Sleeper {
    void Usleep(std::uint32_t microseconds) override { all.push_back(microseconds); }
    std::vector<std::uint32_t> all;
};

TEST(UsbDeviceAccess, EachFailureToOpenAServiceHasItsCodeAndItsNumberOfAttempts) {
    SimulatedUsbBus bus;
    // No device node, a node named but not there, a node that is no usbfs node. An unsupported service
    // gets five attempts, the others forty, a tenth of a second apart.
    for (auto [product, node, first, attempts] : std::vector<std::tuple<int, const char*, std::string, std::size_t>>{
             {0x1001, "", "IOCreatePlugInInterfaceForService -> e00002c7", 5},
             {0x1002, "E: DEVNAME=/dev/bus/usb/001/002\n", "IOCreatePlugInInterfaceForService -> e00002c0", 40},
             {0x1003, "N: bus/usb/001/003\nE: DEVNAME=/dev/bus/usb/001/003\n", "QueryInterface -> e00002bc", 40}}) {
        std::string text = Format("P: /devices/1-%x\n%sE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: PRODUCT=12d1/%x/0\n",
                                  product, node, product);
        ASSERT_TRUE(umockdev_testbed_add_from_string(bus.Testbed(), text.c_str(), nullptr)) << text;
        Waits waits;
        platform::Replace<platform::Sleeper> useWaits(waits);
        CapturingLogger logger;
        auto port = Registry().NotificationPortCreate();
        platform::UsbIterator it;
        ASSERT_TRUE(port->AddMatchingNotification(kPublishNotification, UsbMatching(0x12d1, product),
                                                  Recorder::Callback, nullptr, it));
        EXPECT_FALSE(QVK_Framework_USB_GetDevice(Registry().IteratorNext(it)));
        std::vector<std::string> expected(attempts + 2, first);
        expected.front() = "<none>";
        expected.back() = "failed";
        EXPECT_EQ(logger.MessagesOf("QVK_Framework_USB_GetDevice"), expected) << product;
        EXPECT_EQ(waits.all, std::vector<std::uint32_t>(attempts, 100000u));
    }
}

TEST(CDMedia, TheCDMediumBelowAModemIsFoundDepthFirstAndNamedByItsKernelName) {
    SimulatedUsbBus bus;
    auto add = [&](const char* kind, const char* name, const std::string& parent, const char* type, bool cd = false) {
        return std::string(std::unique_ptr<gchar, decltype(&g_free)>(
                               umockdev_testbed_add_device(bus.Testbed(), kind, name, parent.c_str(), nullptr,
                                                           "DEVTYPE", type, cd ? "ID_CDROM" : nullptr, "1", nullptr),
                               g_free)
                               .get());
    };
    std::string modem = bus.Plug("1-1", 0x12d1, 0x1001);
    std::string host = add("scsi", "host3", add("usb", "1-1:1.1", modem, "usb_interface"), "scsi_host");
    add("block", "sdc", add("scsi", "3:0:0:0", host, "scsi_device"), "disk");
    add("block", "sr1", add("scsi", "3:0:0:1", host, "scsi_device"), "disk", true);
    // Nearer to the modem but later in order: a breadth-first search would take this one.
    std::string later = add("usb", "1-1:1.2", modem, "usb_interface");
    add("block", "sr0", later, "disk", true);
    auto name = [](std::string path) { return QVK_Framework_BSDNameForMedia(Entries().RegistryEntryFromPath(path)); };
    EXPECT_EQ(name(modem), "sr1");
    EXPECT_EQ(name(later), "sr0");
    EXPECT_TRUE(Entries().ObjectConformsTo(Entries().RegistryEntryFromPath(modem), platform::kUsbDeviceClass));
}

// The bytes the main thread's heap (malloc's main arena) has handed out and not had back, once the
// test's own records (every log entry and command kept) are given back. The module, the registry
// and the run loop live on the main thread; the bus's own threads have arenas of their own, and
// when they start is theirs.
std::size_t MainHeapInUse(CapturingLogger& logger, RecordingShell& shell) {
    logger.entries = decltype(logger.entries)();
    shell.commands = decltype(shell.commands)();
    std::string report(1 << 16, '\0');
    std::FILE* stream = fmemopen(report.data(), report.size() - 1, "w");
    if (!stream) throw std::runtime_error("no stream for malloc's report");
    malloc_info(0, stream);
    std::fclose(stream);
    // The main arena is listed first: its size, less its free blocks (the fast bins and the rest).
    auto size = [&](const std::string& entry) {
        std::size_t tag = report.find(entry), at = report.find(" size=\"", tag);
        return at < report.find('>', tag) ? std::stoul(report.substr(at + 7)) : 0;
    };
    return size("<system type=\"current\"") - size("<total type=\"fast\"") - size("<total type=\"rest\"");
}

// The clock stands where the test puts it.
struct SetClock : platform::Clock {
    double Now() override { return now; }
    double now = 0;
};

// The USB launcher module with the real registry, run loop, preferences and launch: 1,000 plug and
// unplug events of five devices (four watched modems and a mouse), sent as fast as the bus takes
// them: it gives up on a listener that lets ten events wait, so each watched modem is served before
// the next events. Three names are used in turn, so a lost removal would hide the next device of
// that name. The clock moves 0.5 s an event and 3 s every 40th: one launch per window, each later
// request in a window dropped. Afterwards the heap holds what it held before the burst, give or take
// a few hash buckets: nothing is kept per event.
TEST(USBLauncherOnBus, ABurstOfEventsIsCountedOnceEachAndLaunchesOncePerWindow) {
    SimulatedUsbBus bus;
    TempDir dir;
    FakeBundle bundle{dir.path() + "/Modem.app/Launcher.app"};
    FakeHome home{dir.path()};
    RecordingShell shell;
    SetClock time;
    platform::Replace<platform::Bundle> useBundle{bundle};
    platform::Replace<platform::Home> useHome{home};
    platform::Replace<platform::Shell> useShell{shell};
    platform::Replace<platform::Clock> useTime{time};
    CapturingLogger logger;
    Scoped<std::unique_ptr<QVK_Framework_Port_Module_USBLauncher>> module(MyModule, nullptr);
    ASSERT_TRUE(QVK_Framework_Use_USBLauncher());
    QVK_Framework_Port_Module::Class::QVK_Framework_PortModule_Start();
    // Each request logs its call, and a launch its command too.
    auto requests = [&] { return logger.MessagesOf("LaunchMyApplication").size() - shell.commands.size(); };
    using Kind = std::pair<std::uint16_t, std::uint16_t>;
    // The last is no modem.
    const std::array<Kind, 5> kinds = {
        {{0x12d1, 0x1001}, {0x19d2, 0x2000}, {0x0af0, 0x6971}, {0x12d1, 0x141b}, {0x4e55, 0x0001}}};
    // Each batch logs its call, then its modem.
    std::vector<std::string> published;
    auto plugged = [&](Kind k) {
        published.insert(published.end(), {"<none>", Format("Vendor 0x%04x Product 0x%04x", k.first, k.second)});
        return published.size() / 2;
    };

    std::array<std::string, 3> slots;
    slots[0] = bus.Plug("slot0", 0x12d1, 0x1001);
    ASSERT_TRUE(Serve([&] { return shell.commands.size() == 1; }));
    const std::size_t idle = MainHeapInUse(logger, shell);
    std::size_t windows = 0;
    for (std::size_t i = 0, events = 0; events < 1000; ++i) {
        std::string& slot = slots[i % slots.size()];
        events += slot.empty() ? 1 : 2;
        if (!slot.empty()) bus.Unplug(slot);
        windows += i % 40 == 0;
        time.now += i % 40 == 0 ? 3.0 : 0.5;
        const Kind& kind = kinds[i % kinds.size()];
        slot = bus.Plug("slot" + std::to_string(i % slots.size()), kind.first, kind.second);
        if (&kind == &kinds.back()) continue;
        ASSERT_TRUE(Serve([&, modems = plugged(kind)] { return requests() == modems; })) << "event " << events;
    }
    for (std::string& slot : slots) bus.Unplug(slot);
    time.now += 3.0;
    bus.Plug("slot0", 0x12d1, 0x1003);
    plugged({0x12d1, 0x1003});
    ASSERT_TRUE(Serve([&] { return shell.commands.size() == windows + 1; })) << "a removed name is a new device";
    EXPECT_EQ(logger.MessagesOf(kPublish), published) << "each watched modem once, in the order plugged";

    published = decltype(published)();
    EXPECT_LE(MainHeapInUse(logger, shell), idle + 8 * 1024) << "idle before the burst: " << idle << " bytes";
}

}  // namespace
}  // namespace qvk::test

int main(int argc, char** argv) {
    // Blocks in malloc's per-thread cache count as in use; without that cache the bytes in use are
    // exact, as the burst test's memory check needs. Taken up by the re-execution.
    setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0", 0);
    qvk::test::RunWithUmockdevPreload(argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
