// The USB launcher module with the real registry, run loop, preferences and launch, on a simulated
// bus; only the shell, the clock, the home folder and the bundle's place are the test's own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "../../unit/test_support.h"
#include "launcher/launch.h"
#include "launcher/usb_launcher.h"
#include "platform/clock.h"
#include "platform/run_loop.h"
#include "platform/shell.h"
#include "simulated_usb_bus.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;

constexpr const char* kPublish = "-[QVK_Framework_Port_Module_USBLauncher QVK_Framework_PortModule_Publish:]";

class USBLauncherOnBus : public ::testing::Test {
protected:
    USBLauncherOnBus() { ForgetPreviousLaunchForTesting(); }
    ~USBLauncherOnBus() override {
        MyModule.reset();
        ForgetPreviousLaunchForTesting();
    }

    // As main does it; forgets what arming logged (one empty publish batch per dictionary).
    void Start() {
        ASSERT_TRUE(QVK_Framework_Use_USBLauncher());
        QVK_Framework_Port_Module::Class::QVK_Framework_PortModule_Start();
        logger.entries.clear();
    }
    bool Serve(const std::function<bool()>& done) { return platform::Use<platform::RunLoop>().RunUntil(done, 5.0); }
    bool ServeUntilLaunches(std::size_t n) {
        return Serve([&] { return shell.commands.size() >= n; });
    }
    // The launch requests, as LaunchMyApplication logs its call.
    std::size_t Requests() const { return logger.MessagesOf("LaunchMyApplication").size() - Launches(); }
    std::size_t Launches() const { return shell.commands.size(); }

    SimulatedUsbBus bus;
    TempDir dir;
    std::string app = CopySampleApp(dir.path());
    std::string open = "/usr/bin/open -a \"" + app + "\"";
    CapturingLogger logger;
    FakeBundle bundle{app + "/Launcher.app"};
    FakeHome home{dir.path() + "/home"};
    RecordingShell shell;
    SteppingClock clock;
    platform::Replace<platform::Bundle> useBundle{bundle};
    platform::Replace<platform::Home> useHome{home};
    platform::Replace<platform::Shell> useShell{shell};
    platform::Replace<platform::Clock> useClock{clock};
};

TEST_F(USBLauncherOnBus, AModemPluggedInLaterLaunchesAndTwoInOneBatchLaunchOnce) {
    Start();
    bus.Plug("modem", 0x19d2, 0x2000);
    ASSERT_TRUE(ServeUntilLaunches(1));
    // The clock moves 10 s per reading, so a second request would launch: one launch means one request.
    bus.Plug("one", 0x12d1, 0x1001);
    bus.Plug("two", 0x12d1, 0x1001);
    ASSERT_TRUE(ServeUntilLaunches(2));
    // A later modem is the sign that everything before it was handled.
    bus.Plug("later", 0x12d1, 0x1003);
    ASSERT_TRUE(ServeUntilLaunches(3));
    EXPECT_THAT(logger.MessagesOf(kPublish),
                ElementsAre("<none>", "Vendor 0x19d2 Product 0x2000", "<none>", "Vendor 0x12d1 Product 0x1001",
                            "Vendor 0x12d1 Product 0x1001", "<none>", "Vendor 0x12d1 Product 0x1003"));
    EXPECT_THAT(shell.commands, ElementsAre(open, open, open));
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
    auto size = [&](const char* entry) {
        std::size_t value = 0, at = report.find(entry);
        if (at != std::string::npos) at = report.find("size=\"", at);
        if (at != std::string::npos) std::sscanf(report.c_str() + at + 6, "%zu", &value);
        return value;
    };
    return size("<system type=\"current\"") - size("<total type=\"fast\"") - size("<total type=\"rest\"");
}

// The clock stands where the test puts it.
class SetClock : public platform::Clock {
public:
    double Now() override { return now; }
    double now = 0;
};

// 1,000 plug and unplug events of five devices (four watched modems and a mouse), sent as fast as
// the bus takes them: it gives up on a listener that lets ten events wait, so each watched modem is
// served before the next events. Three names are used in turn, so a lost removal would hide the
// next device of that name. The clock moves 0.5 s an event and 3 s every 40th: one launch per
// window, each later request in a window dropped. Afterwards the heap holds what it held before the
// burst, give or take a few hash buckets: nothing is kept per event.
TEST_F(USBLauncherOnBus, ABurstOfEventsIsCountedOnceEachAndLaunchesOncePerWindow) {
    SetClock time;
    platform::Replace<platform::Clock> useTime{time};
    struct Kind {
        std::uint16_t vendor, product;
    };
    const std::array<Kind, 5> kinds = {
        {{0x12d1, 0x1001}, {0x19d2, 0x2000}, {0x0af0, 0x6971}, {0x1e0e, 0x9001}, {0x046d, 0xc077}}};
    auto watched = [](std::size_t kind) { return kind != 4; };
    auto shown = [&](const Kind& k) { return Format("Vendor 0x%04x Product 0x%04x", k.vendor, k.product); };

    Start();
    std::array<std::string, 3> slots;
    slots[0] = bus.Plug("slot0", 0x12d1, 0x1001);
    ASSERT_TRUE(ServeUntilLaunches(1));
    const std::size_t idle = MainHeapInUse(logger, shell);

    std::vector<std::string> expected;
    std::size_t windows = 0;
    for (std::size_t i = 0, events = 0; events < 1000; ++i) {
        std::string& slot = slots[i % slots.size()];
        if (!slot.empty()) {
            bus.Unplug(slot);
            ++events;
        }
        std::size_t kind = i % kinds.size();
        time.now += i % 40 == 0 ? 3.0 : 0.5;
        windows += i % 40 == 0;
        slot = bus.Plug("slot" + std::to_string(i % slots.size()), kinds[kind].vendor, kinds[kind].product);
        ++events;
        if (watched(kind)) {
            expected.push_back(shown(kinds[kind]));
            ASSERT_TRUE(Serve([&] { return Requests() == expected.size(); })) << "event " << events;
        }
    }
    for (std::string& slot : slots) bus.Unplug(slot);
    time.now += 3.0;
    bus.Plug("slot0", 0x12d1, 0x1003);
    expected.push_back(shown({0x12d1, 0x1003}));
    ASSERT_TRUE(ServeUntilLaunches(windows + 1)) << "a removed name comes back as a new device";

    std::vector<std::string> found;
    for (const std::string& message : logger.MessagesOf(kPublish))
        if (message != "<none>") found.push_back(message);
    EXPECT_EQ(found, expected) << "each watched modem once, in the order plugged";
    EXPECT_EQ(Requests(), expected.size());
    EXPECT_EQ(Launches(), windows + 1);

    expected = decltype(expected)();
    found = decltype(found)();
    EXPECT_LE(MainHeapInUse(logger, shell), idle + 8 * 1024) << "idle before the burst: " << idle << " bytes";
}

}  // namespace
}  // namespace qvk::test
