// The comparison run, inside the sandbox root: owns the simulated USB bus, starts the Launcher and
// the three watchers a user could run instead, plugs each one's modem in turn and reads, from the
// marks pipe, when the stand-in /usr/bin/open began. All plugging and timing of bench/compare is
// here.
//
//   compare_driver --launcher EXE --app APP --watchers DIR [--rounds N] [--plugs N] [--idle S]
//                  [--events N]
//
// A plug's time is read when umockdev has sent its uevent (the send ends the call); the driver runs
// with a real-time priority that its children do not inherit, so that no woken watcher runs
// between the send and that reading.
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <dirent.h>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "../generated_device_list.h"
#include "simulated_usb_bus.h"

extern char** environ;

namespace {

constexpr const char* kMarks = "/tmp/qvk-bench-marks";
// A plug whose mark has not come within this time counts as missed.
constexpr double kMissAfter = 1.5;
// The Launcher drops requests closer than 2 s to the previous one: its own plugs come this far apart.
constexpr double kLauncherPlugGap = 2.5;

double Now() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

void SleepUntil(double when) {
    double left = when - Now();
    if (left <= 0) return;
    timespec t{static_cast<time_t>(left), static_cast<long>((left - std::floor(left)) * 1e9)};
    nanosleep(&t, nullptr);
}

struct Options {
    std::string launcher, app, watchers;
    int rounds = 3, plugs = 40, idle = 60, events = 400;
};

Options Parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string name = argv[i], value = argv[i + 1];
        if (name == "--launcher")
            o.launcher = value;
        else if (name == "--app")
            o.app = value;
        else if (name == "--watchers")
            o.watchers = value;
        else if (name == "--rounds")
            o.rounds = std::stoi(value);
        else if (name == "--plugs")
            o.plugs = std::stoi(value);
        else if (name == "--idle")
            o.idle = std::stoi(value);
        else if (name == "--events")
            o.events = std::stoi(value);
        else
            throw std::runtime_error("unknown option " + name);
    }
    if (o.launcher.empty() || o.app.empty() || o.watchers.empty() || (argc - 1) % 2)
        throw std::runtime_error(
            "usage: compare_driver --launcher EXE --app APP --watchers DIR [--rounds N] "
            "[--plugs N] [--idle S] [--events N]");
    return o;
}

// The simulated bus, with the time each plug was announced.
class Bus {
public:
    std::string Plug(const std::string& name, unsigned vendor, unsigned product, double& sent) {
        std::string path = bus_.Plug(name, static_cast<std::uint16_t>(vendor), static_cast<std::uint16_t>(product));
        sent = Now();
        if (path.empty()) throw std::runtime_error("the test bed refused " + name);
        return path;
    }
    void Unplug(const std::string& path) { bus_.Unplug(path); }

private:
    qvk::test::SimulatedUsbBus bus_;
};

// The stand-in's lines: "<monotonic time> <application>".
class Marks {
public:
    Marks() {
        unlink(kMarks);
        if (mkfifo(kMarks, 0666) != 0 || chmod(kMarks, 0666) != 0) throw std::runtime_error("no marks pipe");
        // Read and write: the pipe never reads as ended between two markers.
        fd_ = open(kMarks, O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (fd_ < 0) throw std::runtime_error("cannot open the marks pipe");
    }
    ~Marks() {
        close(fd_);
        unlink(kMarks);
    }
    Marks(const Marks&) = delete;
    Marks& operator=(const Marks&) = delete;

    // The time of the next mark of `app` before `deadline`; marks of others are dropped.
    bool Next(const std::string& app, double deadline, double& when) {
        for (;;) {
            std::size_t end;
            while ((end = buffer_.find('\n')) != std::string::npos) {
                std::string line = buffer_.substr(0, end);
                buffer_.erase(0, end + 1);
                std::size_t blank = line.find(' ');
                if (blank != std::string::npos && line.substr(blank + 1) == app) {
                    when = std::strtod(line.c_str(), nullptr);
                    return true;
                }
            }
            double left = deadline - Now();
            if (left <= 0) return false;
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(std::ceil(left * 1000))) <= 0) continue;
            char chunk[4096];
            ssize_t n = read(fd_, chunk, sizeof chunk);
            if (n > 0) buffer_.append(chunk, static_cast<std::size_t>(n));
        }
    }

    void Drain() {
        char chunk[4096];
        while (read(fd_, chunk, sizeof chunk) > 0) {
        }
        buffer_.clear();
    }

private:
    int fd_;
    std::string buffer_;
};

// `spread` descriptors above 2 are taken in the child before it starts: umockdev names a
// listener's socket after its descriptor's number, and two listeners with the same number would
// share one socket.
pid_t Spawn(const std::vector<std::string>& args, const std::vector<std::string>* environment, int spread = 0) {
    std::vector<char*> argv, envp;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    if (environment) {
        for (const std::string& e : *environment) envp.push_back(const_cast<char*>(e.c_str()));
        envp.push_back(nullptr);
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int fd = 3; fd < 3 + spread; ++fd) posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_RDONLY, 0);
    pid_t pid = -1;
    int failed = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environment ? envp.data() : environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failed) throw std::runtime_error("cannot start " + args[0]);
    return pid;
}

void Stop(pid_t pid) {
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
}

std::string ReadText(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The system call the process's main thread waits in, as /proc shows it; -1 when it runs.
long SystemCall(pid_t pid) {
    std::string text = ReadText("/proc/" + std::to_string(pid) + "/syscall");
    if (text.empty() || text.compare(0, 7, "running") == 0) return -1;
    return std::strtol(text.c_str(), nullptr, 10);
}

bool Polling(pid_t pid) {
    long call = SystemCall(pid);
    return call == SYS_poll || call == SYS_ppoll;
}

// Waits until the main thread idles in poll (seen twice in a row); the time it was first seen.
double WaitListening(pid_t pid, double limit) {
    double deadline = Now() + limit, first = 0;
    int seen = 0;
    while (Now() < deadline) {
        if (Polling(pid)) {
            if (seen++ == 0) first = Now();
            if (seen == 2) return first;
        } else {
            seen = 0;
        }
        usleep(100);
    }
    throw std::runtime_error("pid " + std::to_string(pid) + " never came to wait for events");
}

// A field "Name: value" of a /proc text, as a number.
long long Field(const std::string& text, const std::string& name) {
    std::size_t at = text.find(name + ":");
    return at == std::string::npos ? 0 : std::atoll(text.c_str() + at + name.size() + 1);
}

std::vector<std::string> Tasks(pid_t pid) {
    std::vector<std::string> tasks;
    std::string folder = "/proc/" + std::to_string(pid) + "/task";
    if (DIR* dir = opendir(folder.c_str())) {
        while (dirent* entry = readdir(dir))
            if (entry->d_name[0] != '.') tasks.push_back(folder + "/" + entry->d_name);
        closedir(dir);
    }
    return tasks;
}

// Context switches of all the process's threads: each is a wake-up.
long long ContextSwitches(pid_t pid) {
    long long sum = 0;
    for (const std::string& task : Tasks(pid)) {
        std::string status = ReadText(task + "/status");
        sum += Field(status, "voluntary_ctxt_switches") + Field(status, "nonvoluntary_ctxt_switches");
    }
    return sum;
}

// Processor time of all the process's threads, in nanoseconds.
long long CpuTime(pid_t pid) {
    long long sum = 0;
    for (const std::string& task : Tasks(pid)) sum += std::atoll(ReadText(task + "/schedstat").c_str());
    return sum;
}

// The sockets through which umockdev hands uevents to its listeners.
std::size_t Listeners() {
    const char* folder = std::getenv("UMOCKDEV_DIR");
    std::size_t count = 0;
    if (DIR* dir = folder ? opendir(folder) : nullptr) {
        while (dirent* entry = readdir(dir)) count += std::strncmp(entry->d_name, "event", 5) == 0;
        closedir(dir);
    }
    return count;
}

struct Watcher {
    std::string name;
    std::vector<std::string> command;
    unsigned vendor, product;
    std::string app;
    pid_t pid = -1;
    double lastPlug = -1e9;
    std::vector<double> latencies{};
    int misses = 0;
};

double Quantile(std::vector<double> v, double q) {
    if (v.empty()) return NAN;
    std::sort(v.begin(), v.end());
    // The nearest rank.
    return v[std::max<std::size_t>(1, static_cast<std::size_t>(std::ceil(q * static_cast<double>(v.size())))) - 1];
}

// The environment lib.sh's `launch --as root` gives the Launcher, with this bus.
std::vector<std::string> LauncherEnvironment() {
    const char* dir = std::getenv("UMOCKDEV_DIR");
    return {"PATH=/usr/local/bin:/usr/bin:/bin",
            "HOME=/Users/maria",
            "USER=maria",
            "LOGNAME=maria",
            "LD_PRELOAD=libumockdev-preload.so.0",
            std::string("UMOCKDEV_DIR=") + (dir ? dir : "")};
}

void WriteDeviceList(const std::string& app, int pairs) {
    std::string path = app + "/Contents/Resources/NetworkBlocker.xml";
    if (pairs == 0) {
        unlink(path.c_str());
        return;
    }
    qvk::bench::WriteGeneratedDeviceList(path, pairs);
}

struct ListFigures {
    double listening;
    double perEvent;
};

// Starts the Launcher with `pairs` generated device-list pairs: the time to listening, and the
// processor time per event of `events` plug and unplug events of a known modem that come closer
// together than the debounce, so that they cost the Launcher's own work and no launch.
ListFigures MeasureList(Bus& bus, Marks& marks, const Options& o, int pairs) {
    WriteDeviceList(o.app, pairs);
    std::vector<std::string> environment = LauncherEnvironment();
    double start = Now();
    pid_t pid = Spawn({o.launcher}, &environment);
    double listening = WaitListening(pid, 30) - start;
    double sent = 0;
    std::string first = bus.Plug("list-first", 0x12d1, 0x1001, sent);
    double mark = 0;
    marks.Next(o.app, sent + kMissAfter, mark);
    WaitListening(pid, 10);
    long long before = CpuTime(pid);
    std::string last = first;
    // Each event waits for the one before to be taken: umockdev gives up on a listener whose queue
    // is full.
    for (int i = 0; i < o.events / 2; ++i) {
        bus.Unplug(last);
        WaitListening(pid, 10);
        std::string name = "list-";
        name += std::to_string(i);
        last = bus.Plug(name, 0x12d1, 0x1001, sent);
        WaitListening(pid, 10);
    }
    long long used = CpuTime(pid) - before;
    bus.Unplug(last);
    WaitListening(pid, 10);
    Stop(pid);
    WriteDeviceList(o.app, 0);
    marks.Drain();
    return {listening, static_cast<double>(used) * 1e-9 / (2 * (o.events / 2))};
}

void Run(const Options& o) {
    sched_param priority{};
    priority.sched_priority = 10;
    bool realTime = sched_setscheduler(0, SCHED_FIFO | SCHED_RESET_ON_FORK, &priority) == 0;
    signal(SIGPIPE, SIG_IGN);
    Bus bus;
    Marks marks;

    std::string watch = o.watchers + "/udev_watcher";
    std::vector<Watcher> watchers = {
        {"libudev + fork/exec (floor)",
         {watch, "--exec", "1e0e", "9101", "/Applications/Floor Watch.app"},
         0x1e0e,
         0x9101,
         "/Applications/Floor Watch.app"},
        {"libudev + /bin/sh -c",
         {watch, "--shell", "1e0e", "9102", "/Applications/Shell Watch.app"},
         0x1e0e,
         0x9102,
         "/Applications/Shell Watch.app"},
        {"udevadm monitor | while read",
         {"/bin/sh", o.watchers + "/udevadm_watcher.sh", "1e0e", "9103", "/Applications/Udevadm Watch.app"},
         0x1e0e,
         0x9103,
         "/Applications/Udevadm Watch.app"},
        {"Launcher", {o.launcher}, 0x12d1, 0x1001, o.app},
    };
    std::vector<std::string> environment = LauncherEnvironment();
    double launcherStart = Now();
    int spread = 0;
    for (Watcher& w : watchers) {
        bool launcher = w.name == "Launcher";
        w.pid = Spawn(w.command, launcher ? &environment : nullptr, launcher ? 0 : spread += 40);
    }
    pid_t launcher = watchers.back().pid;
    double startToListening = WaitListening(launcher, 30) - launcherStart;
    // The shell pipeline's reading end has no poll to show; give every watcher a moment to settle.
    usleep(500000);
    if (Listeners() != watchers.size()) throw std::runtime_error("not every watcher listens to the bus");

    // Each slot plugs one watcher's modem; the Launcher's plugs thus come kLauncherPlugGap apart.
    double slot = kLauncherPlugGap / static_cast<double>(watchers.size());
    double next = Now();
    int count = 0;
    for (int round = 0; round < o.rounds; ++round) {
        for (int plug = 0; plug < o.plugs; ++plug) {
            for (std::size_t k = 0; k < watchers.size(); ++k) {
                Watcher& w = watchers[(k + static_cast<std::size_t>(round)) % watchers.size()];
                // A late slot never brings one watcher's plugs closer together.
                next = std::max(next, w.lastPlug + kLauncherPlugGap);
                SleepUntil(next);
                next += slot;
                double sent = 0, mark = 0;
                std::string name = "m";
                name += std::to_string(++count);
                std::string path = bus.Plug(name, w.vendor, w.product, sent);
                w.lastPlug = sent;
                if (marks.Next(w.app, sent + kMissAfter, mark))
                    w.latencies.push_back(mark - sent);
                else
                    ++w.misses;
                bus.Unplug(path);
            }
        }
    }

    // Idle: the Launcher alone is watched; the others stay as they are.
    sleep(2);
    WaitListening(launcher, 10);
    long long switches = ContextSwitches(launcher);
    sleep(static_cast<unsigned>(o.idle));
    long long wakeUps = ContextSwitches(launcher) - switches;
    std::string rollup = ReadText("/proc/" + std::to_string(launcher) + "/smaps_rollup");
    long long privateKiB = Field(rollup, "Private_Clean") + Field(rollup, "Private_Dirty");
    long long totalKiB = Field(rollup, "Rss");
    for (Watcher& w : watchers) Stop(w.pid);
    marks.Drain();

    ListFigures small = MeasureList(bus, marks, o, 0);
    ListFigures large = MeasureList(bus, marks, o, 10000);

    double floor = Quantile(watchers.front().latencies, 0.5);
    std::printf("\nPlug to launch, %d rounds x %d plugs per watcher, interleaved, %.3f s apart per watcher%s\n",
                o.rounds, o.plugs, kLauncherPlugGap, realTime ? "" : " (driver without real-time priority)");
    std::printf("%-30s %9s %9s %9s %7s %9s\n", "watcher", "p50 ms", "p90 ms", "max ms", "misses", "p50/floor");
    for (const Watcher& w : watchers) {
        double p50 = Quantile(w.latencies, 0.5);
        double top = w.latencies.empty() ? NAN : *std::max_element(w.latencies.begin(), w.latencies.end());
        std::printf("%-30s %9.3f %9.3f %9.3f %7d %9.2f\n", w.name.c_str(), p50 * 1e3, Quantile(w.latencies, 0.9) * 1e3,
                    top * 1e3, w.misses, p50 / floor);
    }
    std::printf("\nLauncher\n");
    std::printf("  wake-ups idle over %d s (context switches)   %lld\n", o.idle, wakeUps);
    std::printf("  resident memory idle, private / total        %lld KiB / %lld KiB\n", privateKiB, totalKiB);
    std::printf("  start to listening                           %.1f ms\n", startToListening * 1e3);
    std::printf("  with 19 pairs:          start to listening   %.1f ms, processor time per event %.1f us\n",
                small.listening * 1e3, small.perEvent * 1e6);
    std::printf("  with 19 + 10,000 pairs: start to listening   %.1f ms, processor time per event %.1f us\n",
                large.listening * 1e3, large.perEvent * 1e6);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        Run(Parse(argc, argv));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "compare_driver: %s\n", e.what());
        return 1;
    }
    return 0;
}
