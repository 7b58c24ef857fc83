#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <deque>

#include "framework/privileges/drop_privileges.h"
#include "framework/privileges/setuid.h"
#include "language_environment.h"
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
    std::string Executable() { return bundle_.MainExecutablePath(); }

    TempDir folder_;
    FakeBundle bundle_{folder_.path() + "/Launcher.app"};
    platform::Replace<platform::Bundle> useBundle_{bundle_};
    FakeGestalt snowLeopard_{0x1068};
    platform::Replace<platform::Gestalt> useGestalt_{snowLeopard_};
    LanguageEnvironment languages_;
    CapturingLogger logger_;
    Scoped<const char*> language_{QVK_PreferredLanguage, nullptr};
    std::deque<std::string> argv_;
};

TEST_F(HandleSetuid, UserStartReexecutesWithUidAndTheBundlesFirstPreferredLanguage) {
    std::filesystem::create_directories(folder_.path() + "/Launcher.app/Contents/Resources/de.lproj");
    std::filesystem::create_directories(folder_.path() + "/Launcher.app/Contents/Resources/fr.lproj");
    languages_.Set("LANGUAGE", "fr:de");
    RecordingProcess process(501, 0);
    EXPECT_THROW(Run(process, {Executable(), "--qvk-uninstall", "--lang", "xx"}), ImageReplaced);
    EXPECT_THAT(process.calls, ElementsAre("setuid 0", "chmod 755 " + Executable(), "execve " + Executable()));
    EXPECT_THAT(process.arguments,
                ElementsAre(Executable(), "--qvk-uninstall", "--lang", "xx", "--uid", "501", "--lang", "fr"));
    EXPECT_THAT(
        logger_.LogLines(),
        ElementsAre("../../Framework/Framework/Apple/Setuid:25(Trace): QVK_Framework_HandleSetuid: uid: 501 euid: 0"));
}

TEST_F(HandleSetuid, WithoutLocalizationsNoLanguageIsAddedAndHomeIsCarriedAcross) {
    const char* saved = std::getenv("HOME");
    std::string savedHome = saved ? saved : "";
    unsetenv("HOME");
    FakeHome home("/home/user501");
    platform::Replace<platform::Home> useHome(home);
    RecordingProcess process(501, 0);
    EXPECT_THROW(Run(process, {Executable()}), ImageReplaced);
    std::vector<std::string> environment = process.environment;
    if (saved) setenv("HOME", savedHome.c_str(), 1);
    EXPECT_THAT(process.arguments, ElementsAre(Executable(), "--uid", "501"));
    EXPECT_THAT(environment, ::testing::Contains("HOME=/home/user501"));
}

TEST_F(HandleSetuid, AFailedReexecutionIsAnAssertion) {
    RecordingProcess process(501, 0);
    process.failExecute = true;
    EXPECT_DEATH(Run(process, {Executable()}),
                 "Assertion failed: \\(NO\\), function QVK_Framework_HandleSetuid, file "
                 "\\.\\./\\.\\./Framework/Framework/Apple/Setuid, line 79\\.");
}

TEST_F(HandleSetuid, PrivilegedRunRestoresTheBitAndReadsItsOptionsStrictly) {
    RecordingProcess process(0, 0);
    EXPECT_EQ(Run(process, {Executable(), "--qvk-uninstall", "--uid", "501", "--lang", "de"}), 501u);
    EXPECT_THAT(process.calls, ElementsAre("chown 0:0 " + Executable(), "chmod 4755 " + Executable()));
    EXPECT_STREQ(QVK_PreferredLanguage, "de");

    // Only a wholly decimal uid counts, the last one given wins, and a trailing option is ignored.
    auto uidOf = [&](std::vector<std::string> options) {
        RecordingProcess process(0, 0);
        options.insert(options.begin(), Executable());
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
}

TEST_F(HandleSetuid, WithoutEffectiveSuperUserOrBelowTenSixNothingChanges) {
    RecordingProcess process(501, 501);
    EXPECT_EQ(Run(process, {Executable(), "--uid", "7", "--lang", "de"}), 0u);
    EXPECT_TRUE(process.calls.empty());
    EXPECT_EQ(QVK_PreferredLanguage, nullptr);
    EXPECT_THAT(logger_.MessagesOf("QVK_Framework_HandleSetuid"), ElementsAre("uid: 501 euid: 501"));

    // Below 10.6 the real user is returned as it is.
    FakeGestalt leopard{0x1058};
    platform::Replace<platform::Gestalt> useLeopard(leopard);
    RecordingProcess userStart(501, 0);
    EXPECT_EQ(Run(userStart, {Executable(), "--uid", "7"}), 501u);
    RecordingProcess superUser(0, 0);
    EXPECT_EQ(Run(superUser, {Executable(), "--uid", "7"}), 0u);
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
    EXPECT_THAT(drop(501, 0), ElementsAre("setuid 501"));
    EXPECT_THAT(drop(0, 502), ElementsAre("setuid 502"));
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
    EXPECT_THAT(run(0x1058, 501, 777), ElementsAre("setuid 501", "shared app 501", "returned"));
    EXPECT_THAT(run(0x1058, 0, 777), ElementsAre("shared app 0", "returned"));
    EXPECT_THAT(run(0x1068, 501, 777), ElementsAre("shared app 777", "setuid 777"));
    EXPECT_THAT(run(0x1090, 501, 0), ElementsAre("shared app 0"));
}

}  // namespace
}  // namespace qvk::test
