// The USB launcher on a simulated bus: how long from a modem's uevent to the launch command, and
// how long arming takes for the built-in pairs plus a large generated device list.
#include <benchmark/benchmark.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "../generated_device_list.h"
#include "launcher/launch.h"
#include "launcher/usb_launcher.h"
#include "platform/bundle.h"
#include "platform/clock.h"
#include "platform/home.h"
#include "platform/run_loop.h"
#include "platform/service.h"
#include "platform/shell.h"
#include "simulated_usb_bus.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

class CountingShell : public qvk::platform::Shell {
public:
    int System(const std::string&) override { return 0; }
    int SystemAsUser(const std::string&, std::uint32_t) override {
        launched = Clock::now();
        ++count;
        return 0;
    }
    std::optional<std::string> Output(const std::string&, int&) override { return std::nullopt; }
    Clock::time_point launched;
    int count = 0;
};

// Far enough apart that no request is dropped by the debounce.
class SteppingClock : public qvk::platform::Clock {
public:
    double Now() override { return now += 10; }
    double now = 0;
};

class Bundle : public qvk::platform::Bundle {
public:
    explicit Bundle(std::string path) : path_(std::move(path)) {}
    std::string MainBundlePath() override { return path_; }
    std::string MainExecutablePath() override { return path_ + "/Contents/MacOS/Launcher"; }
    int MainExecutable() override { return -1; }

private:
    std::string path_;
};

class Home : public qvk::platform::Home {
public:
    explicit Home(std::string path) : path_(std::move(path)) {}
    std::string HomeDirectory() override { return path_; }

private:
    std::string path_;
};

// A package in a temporary folder whose device list holds `pairs` generated entries.
class Package {
public:
    explicit Package(int pairs) {
        std::string pattern = (fs::temp_directory_path() / "qvk-bench-XXXXXX").string();
        root_ = mkdtemp(pattern.data());
        app_ = root_ + "/Bench.app";
        fs::create_directories(app_ + "/Launcher.app");
        fs::create_directories(app_ + "/Contents/Resources");
        std::ofstream(app_ + "/Contents/Info.plist")
            << "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>com.quorvik.Bench</string>"
               "</dict></plist>";
        qvk::bench::WriteGeneratedDeviceList(app_ + "/Contents/Resources/NetworkBlocker.xml", pairs);
    }
    ~Package() { fs::remove_all(root_); }
    std::string launcher() const { return app_ + "/Launcher.app"; }
    std::string home() const { return root_; }

private:
    std::string root_, app_;
};

struct Seams {
    explicit Seams(const Package& package) : bundle(package.launcher()), home(package.home()) {}
    CountingShell shell;
    SteppingClock clock;
    Bundle bundle;
    Home home;
    qvk::platform::Replace<qvk::platform::Shell> useShell{shell};
    qvk::platform::Replace<qvk::platform::Clock> useClock{clock};
    qvk::platform::Replace<qvk::platform::Bundle> useBundle{bundle};
    qvk::platform::Replace<qvk::platform::Home> useHome{home};
};

void Arm() {
    QVK_Framework_Use_USBLauncher();
    QVK_Framework_Port_Module::Class::QVK_Framework_PortModule_Start();
}

// From the moment a known modem is plugged into the bus (device added, uevent sent) until the
// launch command is handed to the shell, through the real udev monitor and GLib run loop.
void BM_UeventToLaunchCommand(benchmark::State& state) {
    qvk::test::SimulatedUsbBus bus;
    Package package(0);
    Seams seams(package);
    ForgetPreviousLaunchForTesting();
    Arm();
    auto& loop = qvk::platform::Use<qvk::platform::RunLoop>();
    int plugged = 0;
    for (auto _ : state) {
        int before = seams.shell.count;
        Clock::time_point start = Clock::now();
        bus.Plug("modem" + std::to_string(++plugged), 0x12d1, 0x1001);
        if (!loop.RunUntil([&] { return seams.shell.count > before; }, 5.0)) {
            state.SkipWithError("no launch within 5 s");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(seams.shell.launched - start).count());
    }
    MyModule.reset();
}
BENCHMARK(BM_UeventToLaunchCommand)->UseManualTime()->Unit(benchmark::kMicrosecond);

// Reading the device list, building the matching dictionaries and arming both notifications of
// each: 19 built-in pairs plus state.range(0) generated ones.
void BM_ArmBuiltInsAndGeneratedPairs(benchmark::State& state) {
    qvk::test::SimulatedUsbBus bus;
    Package package(static_cast<int>(state.range(0)));
    Seams seams(package);
    for (auto _ : state) {
        Arm();
        state.PauseTiming();
        MyModule.reset();
        state.ResumeTiming();
    }
    state.counters["pairs"] = static_cast<double>(19 + state.range(0));
}
BENCHMARK(BM_ArmBuiltInsAndGeneratedPairs)->Arg(0)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    qvk::test::RunWithUmockdevPreload(argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
