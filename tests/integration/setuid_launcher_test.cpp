// The built Launcher as a set-user-id super-user executable, started by an unprivileged user.
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "../unit/test_support.h"
#include "desktop_session.h"
#include "platform/unique_fd.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr unsigned kNobody = 65534;
constexpr const char* kPackage = "/tmp/pkg/Quorvik.app";
constexpr const char* kHome = "/tmp/home";

// The built Launcher, through a descriptor of the build folder taken before the private /tmp can
// hide a build folder that lies in /tmp.
std::string BuiltLauncher() {
    static platform::UniqueFd build(
        open(std::filesystem::canonical("/proc/self/exe").parent_path().parent_path().c_str(),
             O_PATH | O_DIRECTORY | O_CLOEXEC));
    return "/proc/self/fd/" + std::to_string(build.get()) + "/Launcher.app/Contents/MacOS/Launcher";
}

class SetuidLauncher : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(geteuid(), 0u) << "this test needs root: it installs a set-user-id super-user executable";
        std::string built = BuiltLauncher();
        // A private /tmp: a tmpfs without nosuid, and log markers that no other process sees.
        UsePrivateTmp();
        ASSERT_FALSE(HasFailure());
        ASSERT_TRUE(std::filesystem::exists(built)) << "build the Launcher first: " << built;

        namespace fs = std::filesystem;
        fs::remove_all("/tmp/pkg");
        fs::remove_all(kHome);
        // Folders the unprivileged user can walk through, whatever the test's umask.
        mode_t umaskBefore = umask(022);
        WritePlist(std::string(kPackage) + "/Contents/Info.plist", {{"CFBundleDisplayName", "Quorvik Mobile"},
                                                                    {"CFBundleName", "Quorvik"},
                                                                    {"CFBundleIdentifier", "com.quorvik.Mobile"}});
        std::string bundle = std::string(kPackage) + "/Launcher.app/Contents";
        fs::create_directories(bundle + "/MacOS");
        fs::create_directories(bundle + "/Resources/de.lproj");
        fs::create_directories(kHome);
        umask(umaskBefore);
        fs::copy_file(fs::path(built).parent_path().parent_path() / "Info.plist", bundle + "/Info.plist");
        executable_ = bundle + "/MacOS/Launcher";
        fs::copy_file(built, executable_);
        ASSERT_EQ(chown(executable_.c_str(), 0, 0), 0);
        ASSERT_EQ(chmod(executable_.c_str(), 04755), 0);
        WriteFile("/tmp/Quorvik-PleaseDoLog", "");
    }

    // Starts the executable in a session of its own, as `user` (0: as the super-user itself).
    pid_t Start(unsigned user, std::vector<std::string> args, const std::string& display = "") {
        args.insert(args.begin(), executable_);
        std::vector<std::string> environment{std::string("HOME=") + kHome, "PATH=/usr/bin:/bin", "LANGUAGE=de",
                                             "NO_AT_BRIDGE=1"};
        if (!display.empty()) environment.push_back("DISPLAY=" + display);
        pid_t pid = fork();
        if (pid == 0) {
            setsid();
            if (user != 0 && (setgroups(0, nullptr) != 0 || setgid(user) != 0 || setuid(user) != 0)) _exit(126);
            std::vector<char*> argv, envp;
            for (std::string& a : args) argv.push_back(a.data());
            for (std::string& e : environment) envp.push_back(e.data());
            argv.push_back(nullptr);
            envp.push_back(nullptr);
            execve(executable_.c_str(), argv.data(), envp.data());
            _exit(127);
        }
        return pid;
    }

    // The exit status, or -1 when the process did not end within 30 seconds (it is then killed).
    static int WaitForExit(pid_t pid) {
        int status = 0;
        for (int i = 0; i < 300; ++i) {
            if (waitpid(pid, &status, WNOHANG) == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        return -1;
    }

    static std::string LogOf(pid_t pid) { return ReadFile("/tmp/Quorvik.Log." + std::to_string(pid)); }

    std::string executable_;
};

TEST_F(SetuidLauncher, TheUninstallQuestionAsksTheStartingUserAndReturnDeclines) {
    VirtualDisplay display;
    ASSERT_FALSE(display.name().empty());
    // Removal is for administrators and the application folder's owner.
    ASSERT_EQ(chown(kPackage, kNobody, kNobody), 0);
    pid_t pid = Start(kNobody, {"--qvk-uninstall"}, display.name());
    std::string window = display.WaitForWindow("Quorvik Mobile");
    ASSERT_FALSE(window.empty()) << "no question window; log:\n" << LogOf(pid);

    // The privileged run: the same process, the super-user through and through, with the user's
    // id and language appended to the given arguments; the bit is back already.
    EXPECT_THAT(ArgumentsOf(pid), ElementsAre(executable_, "--qvk-uninstall", "--uid", "65534", "--lang", "de"));
    EXPECT_THAT(UserIdsOf(pid), ElementsAre(0u, 0u, 0u, 0u));
    EXPECT_EQ(OwnerAndMode(executable_), "0:0 4755");
    // The panel is the starting user's.
    pid_t panel = display.WindowProcess(window);
    EXPECT_THAT(UserIdsOf(panel), ElementsAre(kNobody, kNobody, kNobody, kNobody));
    std::vector<std::string> panelArgs = ArgumentsOf(panel);
    EXPECT_THAT(panelArgs, ::testing::Contains("--text=Do you really want to deinstall Quorvik Mobile?"));
    EXPECT_THAT(panelArgs, ::testing::Contains("--ok-label=Yes"));
    EXPECT_THAT(panelArgs, ::testing::Contains("--cancel-label=No"));

    display.PressKeys(window, {"Return"});
    EXPECT_EQ(WaitForExit(pid), 0);
    std::string log = LogOf(pid);
    EXPECT_THAT(log, HasSubstr("Setuid:25(Trace): QVK_Framework_HandleSetuid: uid: 0 euid: 0"));
    EXPECT_THAT(log, HasSubstr("Localizations: (\\n    de,\\n    en\\n)"));
    EXPECT_THAT(log, HasSubstr("Found --qvk-uninstall"));
    EXPECT_TRUE(std::filesystem::exists(executable_));
}

TEST_F(SetuidLauncher, AUidThatIsNotWhollyDecimalIsIgnored) {
    VirtualDisplay display;
    ASSERT_FALSE(display.name().empty());
    pid_t pid = Start(0, {"--uid", "65534", "--uid", "12x", "--qvk-uninstall"}, display.name());
    std::string window = display.WaitForWindow("Quorvik Mobile");
    ASSERT_FALSE(window.empty()) << "no question window; log:\n" << LogOf(pid);
    EXPECT_THAT(UserIdsOf(display.WindowProcess(window)), ElementsAre(kNobody, kNobody, kNobody, kNobody));
    display.PressKeys(window, {"Escape"});
    EXPECT_EQ(WaitForExit(pid), 0);
    EXPECT_THAT(LogOf(pid), HasSubstr("QVK_Framework_HandleSetuid: uid: 0 euid: 0"));
}

TEST_F(SetuidLauncher, WithoutTheSetUserIdBitNothingIsReexecuted) {
    WriteFile(std::string(kHome) + "/.Quorvik-NoLaunch-Brisel", "");
    ASSERT_EQ(chmod(executable_.c_str(), 0755), 0);
    pid_t pid = Start(kNobody, {"--qvk-uninstall"});
    EXPECT_EQ(WaitForExit(pid), 0);
    std::string log = LogOf(pid);
    EXPECT_THAT(log, HasSubstr("QVK_Framework_HandleSetuid: uid: 65534 euid: 65534"));
    EXPECT_THAT(log, Not(HasSubstr("uid: 0 euid: 0")));
    // Without "--lang" only English is tried, and without a display or terminal the answer is no.
    EXPECT_THAT(log, HasSubstr("Localizations: (\\n    en\\n)"));
    EXPECT_THAT(log, HasSubstr("Quorvik Mobile: no display and no terminal; \"No\" answers"));
    EXPECT_EQ(OwnerAndMode(executable_), "0:0 755");
}

}  // namespace
}  // namespace qvk::test
