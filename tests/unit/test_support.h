// Fakes and fixtures shared by the unit tests.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "framework/log/logging.h"
#include "platform/bundle.h"
#include "platform/clock.h"
#include "platform/format.h"
#include "platform/gestalt.h"
#include "platform/home.h"
#include "platform/process_identity.h"
#include "platform/property_list.h"
#include "platform/service.h"
#include "platform/shell.h"
#include "platform/usb.h"

namespace qvk::test {

// A fresh folder, removed with everything in it.
struct TempDir {
    TempDir() : path_((std::filesystem::temp_directory_path() / "qvk-test-XXXXXX").string()) {
        if (!mkdtemp(path_.data())) ADD_FAILURE() << "mkdtemp failed";
    }
    ~TempDir() { std::filesystem::remove_all(path_, ignored_); }
    const std::string& path() const { return path_; }
    std::string path_;
    std::error_code ignored_;
};

// Gives a global another value while it lives.
template <class T>
struct Scoped {
    Scoped(T& global, std::type_identity_t<T> value)
        : global_(global), saved_(std::exchange(global, std::move(value))) {}
    ~Scoped() { global_ = std::move(saved_); }
    T& global_;
    T saved_;
};

inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

inline void WriteFile(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

inline void WritePlist(const std::string& path, const Dictionary& root) {
    WriteFile(path, platform::XmlPropertyList(Value(root)));
}

inline std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// A text as the main logger keeps it on one line.
inline std::string OneLine(const std::string& text) {
    std::string out;
    for (char c : text) out += c == '\n' ? std::string("\\n") : std::string(1, c);
    return out;
}

// The names in a folder, sorted.
inline std::vector<std::string> FolderNames(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// "uid:gid mode" of the object itself, links not followed.
inline std::string OwnerAndMode(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return Format("%u:%u %o", status.st_uid, status.st_gid, status.st_mode & 07777);
}

// Gives this test process a /tmp of its own, so log markers and log files of one test never meet
// those of another test or of the machine. Needs root (the test machines and CI have it).
inline void UsePrivateTmp() {
    static bool done = false;
    if (done) return;
    ASSERT_EQ(geteuid(), 0u) << "this test needs root for a private /tmp (mount namespace)";
    ASSERT_EQ(unshare(CLONE_NEWNS), 0) << "unshare(CLONE_NEWNS) failed: " << std::strerror(errno);
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777"), 0) << std::strerror(errno);
    done = true;
}

// The matching dictionary of one USB vendor and product pair.
inline Value UsbMatching(int vendor, int product) {
    return Value(Dictionary{{platform::kProviderClassKey, Value(platform::kUsbDeviceClass)},
                            {platform::kUsbVendorKey, Value(vendor)},
                            {platform::kUsbProductKey, Value(product)}});
}

// Records the commands it is given instead of running them.
struct RecordingShell : platform::Shell {
    int System(const std::string& command) override { return Record(command); }
    int SystemAsUser(const std::string& command, std::uint32_t user) override {
        users.push_back(user);
        return Record(command);
    }
    std::optional<std::string> Output(const std::string& command, int& status) override {
        status = Record(command);
        return "";
    }
    int Record(const std::string& command) {
        commands.push_back(command);
        return 0;
    }
    std::vector<std::string> commands;
    // The users of the commands run as a user, in order.
    std::vector<std::uint32_t> users;
};

// Thrown where the real process image would be replaced.
struct ImageReplaced {};

// Records every call that changes the process, a descriptor shown as "<fd>"; the ids follow
// setuid as the kernel's would for the super-user.
struct RecordingProcess : platform::ProcessIdentity {
    RecordingProcess(std::uint32_t real, std::uint32_t effective) : real_(real), effective_(effective) {}
    std::uint32_t RealUserID() override { return real_; }
    std::uint32_t EffectiveUserID() override { return effective_; }
    int BecomeUser(std::uint32_t uid) override {
        real_ = effective_ = uid;
        return Record(Format("become %u", uid));
    }
    bool StartedFromDescriptor() override { return fromDescriptor; }
    int ChangeOwner(int fd, std::uint32_t uid, std::uint32_t gid) override {
        return Record(Format("chown %u:%u <%d>", uid, gid, fd));
    }
    int ChangeMode(int fd, mode_t mode) override { return Record(Format("chmod %o <%d>", mode, fd)); }
    int Execute(int fd, char* const argv[], char* const[]) override {
        Record(Format("execve <%d>", fd));
        for (char* const* a = argv; *a; ++a) arguments.append(a == argv ? "" : " ").append(*a);
        if (failExecute) return -1;
        throw ImageReplaced{};
    }

    std::vector<std::string> calls;
    // The arguments of the new image, separated by blanks.
    std::string arguments;
    bool failExecute = false;
    bool fromDescriptor = false;
    std::uint32_t real_, effective_;
    int Record(std::string call) {
        calls.push_back(std::move(call));
        return 0;
    }
};

// Each reading is 10 s after the previous one, so the launch debounce never drops a request.
struct SteppingClock : platform::Clock {
    double Now() override { return now += 10; }
    double now = 0;
};

struct FakeHome : platform::Home {
    explicit FakeHome(std::string home) : path(std::move(home)) {}
    std::string HomeDirectory() override { return path; }
    std::string path;
};

struct FakeBundle : platform::Bundle {
    explicit FakeBundle(std::string bundle) : bundle_(std::move(bundle)) {}
    std::string MainBundlePath() override { return bundle_; }
    std::string MainExecutablePath() override { return bundle_ + "/Contents/MacOS/Launcher"; }
    // Stands for a descriptor; nothing is opened.
    int MainExecutable() override { return 42; }
    std::string bundle_;
};

struct FakeGestalt : platform::Gestalt {
    explicit FakeGestalt(std::optional<std::uint32_t> number, platform::VersionTriple parts = {10, 5, 8})
        : number_(number), parts_(parts) {}
    std::optional<std::uint32_t> SystemVersion() override { return number_; }
    std::optional<platform::VersionTriple> SystemVersionParts() override { return parts_; }
    bool IsOperatingSystemAtLeast(const platform::VersionTriple& v) override {
        return std::tie(parts_.major, parts_.minor, parts_.bugfix) >= std::tie(v.major, v.minor, v.bugfix);
    }
    std::string OperatingSystemVersionString() override { return "Version test"; }
    std::optional<std::uint32_t> number_;
    platform::VersionTriple parts_;
};

// Receives the main logger's entries, registered as the custom logger class while it lives.
struct CapturingLogger : QVK_Framework_CustomLoggerClass {
    struct Entry {
        std::optional<std::string> message;
        std::string type, file, function;
        std::uint32_t line;
    };
    CapturingLogger() {
        QVK_Framework_RegisterClass("QVK_Framework_CustomLogger", *this);
        log::ResetCustomLoggerForTesting();
    }
    ~CapturingLogger() override {
        QVK_Framework_UnregisterClass("QVK_Framework_CustomLogger");
        log::ResetCustomLoggerForTesting();
    }
    bool QVK_Framework_CustomLogger_PerformLogging() override { return true; }
    void QVK_Framework_CustomLogger_LogMessage(const std::optional<std::string>& message, const char* type,
                                               const char* file, std::uint32_t line, const char* function) override {
        entries.push_back({message, type, file, function, line});
    }
    // The messages logged from `function`.
    std::vector<std::string> MessagesOf(const std::string& function) const {
        std::vector<std::string> out;
        for (const auto& e : entries)
            if (e.function == function) out.push_back(e.message.value_or("<none>"));
        return out;
    }
    // The entries as the combined log file writes them, without the date.
    std::vector<std::string> LogLines() const {
        std::vector<std::string> out;
        for (const auto& e : entries)
            out.push_back(Format("%@:%u(%@): %@", e.file, e.line, e.type, e.function) +
                          (e.message ? ": " + *e.message : ""));
        return out;
    }
    std::vector<Entry> entries;
};

// Runs `body` in a forked child with the process's state as it is now, and gives the child's
// process id once it ended; a failed expectation in the child fails the test.
template <class Body>
pid_t RunInChild(Body body) {
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        body();
        std::fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child failed, status " << status;
    return pid;
}

}  // namespace qvk::test
