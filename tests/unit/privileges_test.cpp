#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>

#include "framework/privileges/drop_privileges.h"
#include "framework/privileges/setuid.h"
#include "language_environment.h"
#include "platform/account.h"
#include "platform/alert_panel.h"
#include "platform/process_identity.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;

class HandleSetuid : public ::testing::Test {
protected:
    std::uint32_t Run(RecordingProcess& process, std::vector<std::string> args) {
        platform::Replace<platform::ProcessIdentity> useProcess(process);
        argv_.clear();
        for (std::string& a : args) argv_.push_back(a);
        std::vector<char*> pointers;
        for (std::string& a : argv_) pointers.push_back(a.data());
        pointers.push_back(nullptr);
        return QVK_Framework_HandleSetuid(static_cast<int>(argv_.size()), pointers.data());
    }
    // The arguments the user's start hands over with.
    std::vector<std::string> HandedOver(std::vector<std::string> args, std::uint32_t user = 501) {
        RecordingProcess process(user, 0);
        args.insert(args.begin(), kExecutable);
        EXPECT_THROW(Run(process, args), ImageReplaced);
        return process.arguments;
    }
    void Localize(const char* preferred) {
        std::filesystem::create_directories(folder_.path() + "/Launcher.app/Contents/Resources/de.lproj");
        std::filesystem::create_directories(folder_.path() + "/Launcher.app/Contents/Resources/fr.lproj");
        languages_.Set("LANGUAGE", preferred);
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

TEST_F(HandleSetuid, UserStartReexecutesTheRunningFileAsTheSuperUserWithUidAndLanguage) {
    Localize("fr:de");
    RecordingProcess process(501, 0);
    EXPECT_THROW(Run(process, {kExecutable, "--qvk-uninstall"}), ImageReplaced);
    // Groups go with the user id; the file is reached through the bundle's descriptor only.
    EXPECT_THAT(process.calls, ElementsAre("become 0", "chmod 755 <42>", "execve <42>"));
    EXPECT_THAT(process.arguments, ElementsAre(kExecutable, "--qvk-uninstall", "--uid", "501", "--lang", "fr"));
    EXPECT_THAT(
        logger_.LogLines(),
        ElementsAre("../../Framework/Framework/Apple/Setuid:25(Trace): QVK_Framework_HandleSetuid: uid: 501 euid: 0"));
}

TEST_F(HandleSetuid, TheUsersOwnHandOverOptionsAreDroppedSoThePrivilegedRunActsForTheStartingUser) {
    Localize("fr");
    struct Case {
        std::vector<std::string> given, kept;
    };
    const Case cases[] = {
        {{"--qvk-uninstall", "--uid"}, {"--qvk-uninstall"}},
        {{"--qvk-uninstall", "--uid", "0", "--lang"}, {"--qvk-uninstall"}},
        {{"--uid", "0", "--lang", "x", "--qvk-drivers-uninstall"}, {"--qvk-drivers-uninstall"}},
        // Each option takes what the privileged run's scan would take as its value, option or not.
        {{"--lang", "--uid", "7"}, {"7"}},
        {{"--uid", "--qvk-uninstall", "--lang"}, {}},
        {{"--uidx", "--LANG", "x", "-uid", "7"}, {"--uidx", "--LANG", "x", "-uid", "7"}},
    };
    for (const Case& c : cases) {
        std::vector<std::string> handedOver = HandedOver(c.given);
        std::vector<std::string> expected{kExecutable};
        expected.insert(expected.end(), c.kept.begin(), c.kept.end());
        expected.insert(expected.end(), {"--uid", "501", "--lang", "fr"});
        EXPECT_EQ(handedOver, expected) << ::testing::PrintToString(c.given);
        RecordingProcess privileged(0, 0);
        EXPECT_EQ(Run(privileged, handedOver), 501u) << ::testing::PrintToString(c.given);
        EXPECT_STREQ(QVK_PreferredLanguage, "fr");
    }
}

TEST_F(HandleSetuid, TheHomeFolderIsTheOneTheAccountDatabaseGivesTheUser) {
    const char* saved = std::getenv("HOME");
    std::string savedHome = saved ? saved : "";
    auto homeHandedOver = [&](std::uint32_t user) {
        setenv("HOME", "/tmp/chosen-by-the-caller", 1);
        RecordingProcess process(user, 0);
        EXPECT_THROW(Run(process, {kExecutable}), ImageReplaced);
        auto home = std::find_if(process.environment.begin(), process.environment.end(),
                                 [](const std::string& entry) { return entry.starts_with("HOME="); });
        return home == process.environment.end() ? std::string("no HOME") : *home;
    };
    std::optional<platform::Account> nobody = platform::LookUpAccount(65534);
    std::string nobodysHome = homeHandedOver(65534);
    std::string strangersHome = homeHandedOver(3999999);
    if (saved)
        setenv("HOME", savedHome.c_str(), 1);
    else
        unsetenv("HOME");
    ASSERT_TRUE(nobody.has_value());
    EXPECT_EQ(nobodysHome, "HOME=" + nobody->home);
    EXPECT_EQ(strangersHome, "HOME=/");
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
    EXPECT_DEATH(Run(process, {kExecutable, std::string(200, 'x')}),
                 "chmod 755 <42>\nchmod 4755 <42>\n.*Assertion failed: \\(NO\\), function QVK_Framework_HandleSetuid, "
                 "file \\.\\./\\.\\./Framework/Framework/Apple/Setuid, line 79\\.");
}

TEST_F(HandleSetuid, PrivilegedRunRestoresTheBitAndReadsItsOptionsStrictly) {
    RecordingProcess process(0, 0);
    EXPECT_EQ(Run(process, {kExecutable, "--qvk-uninstall", "--uid", "501", "--lang", "de"}), 501u);
    EXPECT_THAT(process.calls, ElementsAre("chown 0:0 <42>", "chmod 4755 <42>"));
    EXPECT_STREQ(QVK_PreferredLanguage, "de");
    // Started by path: the super-user's own start, whatever it asks for.
    EXPECT_EQ(QVK_Framework_SetuidStartingUser, std::nullopt);

    // Only a wholly decimal uid counts, the last one given wins, and a trailing option is ignored.
    auto uidOf = [&](std::vector<std::string> options) {
        RecordingProcess process(0, 0);
        options.insert(options.begin(), kExecutable);
        return Run(process, options);
    };
    EXPECT_EQ(uidOf({"--uid", "12x"}), 0u);
    EXPECT_EQ(uidOf({"--uid", "501", "--uid", "12x"}), 501u);
    EXPECT_EQ(uidOf({"--uid", "7", "--uid", "9"}), 9u);
    EXPECT_EQ(uidOf({"--uid", "-1"}), 0u);
    EXPECT_EQ(uidOf({"--uid", " 5"}), 0u);
    EXPECT_EQ(uidOf({"--uid", "4294967296"}), 0u);
    EXPECT_EQ(uidOf({"--uid", "4294967294"}), 4294967294u);
    EXPECT_EQ(uidOf({"--uid"}), 0u);
    // The value after "--lang" is consumed, so a "--uid" there is no option.
    EXPECT_EQ(uidOf({"--lang", "--uid", "5"}), 0u);
    EXPECT_STREQ(QVK_PreferredLanguage, "--uid");
    QVK_PreferredLanguage = nullptr;
    EXPECT_EQ(uidOf({"--uid", "501", "--lang"}), 501u);
    EXPECT_EQ(QVK_PreferredLanguage, nullptr);

    // Handed over from a user's start: that user started it.
    RecordingProcess handedOver(0, 0);
    handedOver.fromDescriptor = true;
    EXPECT_EQ(Run(handedOver, {kExecutable, "--uid", "501"}), 501u);
    EXPECT_EQ(QVK_Framework_SetuidStartingUser, 501u);
}

TEST_F(HandleSetuid, WithoutEffectiveSuperUserOrBelowTenSixNothingChanges) {
    RecordingProcess process(501, 501);
    EXPECT_EQ(Run(process, {kExecutable, "--uid", "7", "--lang", "de"}), 0u);
    EXPECT_TRUE(process.calls.empty());
    EXPECT_EQ(QVK_PreferredLanguage, nullptr);
    EXPECT_EQ(QVK_Framework_SetuidStartingUser, std::nullopt);
    EXPECT_THAT(logger_.MessagesOf("QVK_Framework_HandleSetuid"), ElementsAre("uid: 501 euid: 501"));

    // Below 10.6 the real user is returned as it is; a set-user-id start is that user's.
    FakeGestalt leopard{0x1058};
    platform::Replace<platform::Gestalt> useLeopard(leopard);
    RecordingProcess superUser(0, 0);
    EXPECT_EQ(Run(superUser, {kExecutable, "--uid", "7"}), 0u);
    EXPECT_EQ(QVK_Framework_SetuidStartingUser, std::nullopt);
    RecordingProcess userStart(501, 0);
    EXPECT_EQ(Run(userStart, {kExecutable, "--uid", "7"}), 501u);
    EXPECT_EQ(QVK_Framework_SetuidStartingUser, 501u);
    EXPECT_TRUE(userStart.calls.empty());
    EXPECT_TRUE(superUser.calls.empty());
}

TEST(DropPrivileges, BecomesTheEffectiveOrElseTheRealUser) {
    CapturingLogger logger;
    auto drop = [](std::uint32_t real, std::uint32_t effective) {
        RecordingProcess process(real, effective);
        platform::Replace<platform::ProcessIdentity> useProcess(process);
        QVK_Framework_DropPrivileges();
        return process.calls;
    };
    EXPECT_THAT(drop(501, 0), ElementsAre("become 501"));
    EXPECT_THAT(drop(0, 502), ElementsAre("become 502"));
    EXPECT_TRUE(drop(0, 0).empty());
    std::string entered = "../../Framework/Framework/DropPrivileges:16(Trace): QVK_Framework_DropPrivileges";
    std::string done = "../../Framework/Framework/DropPrivileges:29(Trace): QVK_Framework_DropPrivileges: real uid: ";
    EXPECT_THAT(logger.LogLines(),
                ElementsAre(entered, done + "501, effective uid: 501", entered, done + "502, effective uid: 502",
                            entered, done + "0, effective uid: 0"));
}

// Notes the user the shared application object was obtained for, in the process's call list.
class RecordingApplication : public platform::AlertPanel {
public:
    explicit RecordingApplication(RecordingProcess& process) : process_(process) {}
    void SharedApplication(std::uint32_t user) override { process_.calls.push_back(Format("shared app %u", user)); }
    platform::AlertAnswer RunAlertPanel(const std::string&, const std::string&, const std::string&,
                                        const std::optional<std::string>&) override {
        return {};
    }

private:
    RecordingProcess& process_;
};

TEST(SharedAppAndDropPrivileges, OrderDependsOnTheSystemVersion) {
    // The calls made, and "returned" when the application object is handed back.
    auto run = [](std::uint32_t version, std::uint32_t real, std::uint32_t userId) {
        FakeGestalt gestalt{version};
        platform::Replace<platform::Gestalt> useGestalt(gestalt);
        RecordingProcess process(real, 0);
        platform::Replace<platform::ProcessIdentity> useProcess(process);
        RecordingApplication application(process);
        if (QVK_Framework_SharedAppAndDropPrivileges(application, userId) == &application)
            process.calls.push_back("returned");
        return process.calls;
    };
    EXPECT_THAT(run(0x1058, 501, 777), ElementsAre("become 501", "shared app 501", "returned"));
    EXPECT_THAT(run(0x1058, 0, 777), ElementsAre("shared app 0", "returned"));
    EXPECT_THAT(run(0x1068, 501, 777), ElementsAre("shared app 777", "become 777"));
    EXPECT_THAT(run(0x1090, 501, 0), ElementsAre("shared app 0"));
}

}  // namespace
}  // namespace qvk::test
