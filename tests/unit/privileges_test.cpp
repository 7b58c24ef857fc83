#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <sstream>

#include "framework/privileges/setuid.h"
#include "framework/privileges/standard_descriptors.h"
#include "language_environment.h"
#include "platform/path.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;

class HandleSetuid : public ::testing::Test {
protected:
    // Runs with the executable's path and the words of `args` as arguments.
    std::uint32_t Run(RecordingProcess& process, const std::string& args) {
        platform::Replace<platform::ProcessIdentity> useProcess(process);
        std::istringstream words(std::string(kExecutable) + " " + args);
        argv_.clear();
        for (std::string word; words >> word;) argv_.push_back(word);
        std::vector<char*> pointers;
        for (std::string& a : argv_) pointers.push_back(a.data());
        pointers.push_back(nullptr);
        return QVK_Framework_HandleSetuid(static_cast<int>(argv_.size()), pointers.data());
    }

    static constexpr const char* kExecutable = "/Applications/X.app/Launcher.app/Contents/MacOS/Launcher";
    TempDir folder_;
    FakeBundle bundle_{folder_.path() + "/Launcher.app"};
    platform::Replace<platform::Bundle> useBundle_{bundle_};
    // The first release with the hand-over.
    FakeGestalt snowLeopard_{0x1060};
    platform::Replace<platform::Gestalt> useGestalt_{snowLeopard_};
    LanguageEnvironment languages_;
    CapturingLogger logger_;
    Scoped<const char*> language_{QVK_PreferredLanguage, nullptr};
    Scoped<std::optional<std::uint32_t>> startingUser_{QVK_Framework_SetuidStartingUser, std::nullopt};
    std::deque<std::string> argv_;
};

TEST_F(HandleSetuid, TheUsersStartReexecutesTheRunningFileForThatUserAloneWithItsLanguage) {
    std::filesystem::create_directories(folder_.path() + "/Launcher.app/Contents/Resources/de.lproj");
    std::filesystem::create_directories(folder_.path() + "/Launcher.app/Contents/Resources/fr.lproj");
    languages_.Set("LANGUAGE", "fr:de");
    // The user's own hand-over options go, each with what the privileged run would take as its value.
    const std::pair<const char*, const char*> cases[] = {
        {"--qvk-uninstall", "--qvk-uninstall"},
        {"--qvk-uninstall --uid", "--qvk-uninstall"},
        {"--uid 0 --lang x --qvk-drivers-uninstall", "--qvk-drivers-uninstall"},
        {"--lang --uid 7", "7"},
        {"--uidx --LANG x -uid 7", "--uidx --LANG x -uid 7"}};
    for (const auto& [given, kept] : cases) {
        RecordingProcess process(501, 0);
        EXPECT_THROW(Run(process, given), ImageReplaced);
        // Groups go with the user id; the file is reached through the bundle's descriptor only.
        EXPECT_THAT(process.calls, ElementsAre("become 0", "chmod 755 <42>", "execve <42>"));
        std::string handedOver = std::string(kept) + " --uid 501 --lang fr";
        EXPECT_EQ(process.arguments, std::string(kExecutable) + " " + handedOver) << given;
        RecordingProcess privileged(0, 0);
        EXPECT_EQ(Run(privileged, handedOver), 501u);
        EXPECT_STREQ(QVK_PreferredLanguage, "fr");
    }
}

// Shows each change of mode on standard error, where a death test can see it.
class LoudProcess : public RecordingProcess {
public:
    using RecordingProcess::RecordingProcess;
    int ChangeMode(int fd, mode_t mode) override {
        std::fprintf(stderr, "chmod %o <%d>\n", static_cast<unsigned>(mode), fd);
        return RecordingProcess::ChangeMode(fd, mode);
    }
};

TEST_F(HandleSetuid, AFailedReexecutionPutsTheBitBackAndIsAnAssertion) {
    LoudProcess process(501, 0);
    process.failExecute = true;
    EXPECT_DEATH(Run(process, {}),
                 "chmod 755 <42>\nchmod 4755 <42>\n.*Assertion failed: \\(NO\\), function "
                 "QVK_Framework_HandleSetuid, file \\.\\./\\.\\./Framework/Framework/Apple/Setuid, "
                 "line 79\\.");
}

TEST_F(HandleSetuid, ThePrivilegedRunRestoresTheBitAndTakesOnlyAWhollyDecimalUid) {
    RecordingProcess process(0, 0);
    EXPECT_EQ(Run(process, "--uid 501 --lang de"), 501u);
    EXPECT_THAT(process.calls, ElementsAre("chown 0:0 <42>", "chmod 4755 <42>"));
    EXPECT_STREQ(QVK_PreferredLanguage, "de");
    // Started by path: the super-user's own start, whatever it asks for.
    EXPECT_EQ(QVK_Framework_SetuidStartingUser, std::nullopt);
    const std::pair<const char*, std::uint32_t> cases[] = {
        {"--uid 12x", 0},      {"--uid 501 --uid 12x", 501},     {"--uid 501 --uid 0", 0},
        {"--uid +5", 0},       {"--uid 4294967295", 0},          {"--uid", 0},
        {"--lang --uid 5", 0}, {"--uid 4294967294", 0xfffffffe},
    };
    for (const auto& [options, uid] : cases) {
        RecordingProcess root(0, 0);
        EXPECT_EQ(Run(root, options), uid) << options;
    }
    // Handed over from a user's start: that user started it.
    RecordingProcess handedOver(0, 0);
    handedOver.fromDescriptor = true;
    EXPECT_EQ(Run(handedOver, "--uid 501"), 501u);
    EXPECT_EQ(QVK_Framework_SetuidStartingUser, 501u);
}

TEST(StandardDescriptors, TheSuperUsersClosedStandardDescriptorsAreOpenedOnDevNull) {
    ASSERT_EQ(geteuid(), 0u) << "this test needs root: only the super-user's descriptors are opened";
    RunInChild([] {
        close(STDIN_FILENO);
        close(STDERR_FILENO);
        QVK_Framework_OpenStandardDescriptors();
        EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), 0);
        EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFD), 0);
        EXPECT_EQ(platform::ReadLink("/proc/self/fd/2"), "/dev/null");
    });
}

}  // namespace
}  // namespace qvk::test
