// Autostart: the launchd agent file in a real temporary home folder, the login items read from a
// real preferences file, and the commands and signals that switching off sends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "framework/base/identity.h"
#include "framework/basic/autostart.h"
#include "launcher/app_name.h"
#include "platform/home_user.h"
#include "platform/property_list.h"
#include "test_support.h"
#include "uninstall_fakes.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint32_t kNobody = 65534;

// A home folder in a temporary folder with the launcher bundle installed in it, in
// "~/Apps/Pkg.app"; the application is named Pkg.
class Autostart : public ::testing::Test {
protected:
    void SetUp() override {
        savedName_ = QVK_Framework_ApplicationName;
        QVK_Framework_ApplicationName = "Pkg";
        AutostartBundleOverride.reset();
        MakeLauncher(bundle_.MainBundlePath());
        std::filesystem::create_directories(home_.HomeDirectory());
    }
    void TearDown() override {
        QVK_Framework_ApplicationName = savedName_;
        AutostartBundleOverride.reset();
        platform::SetHomeUser(0);
    }
    static void MakeLauncher(const std::string& bundle) {
        std::string script = bundle + "/Contents/MacOS/Launchd Skript";
        WriteFile(script, "#!/bin/sh\n");
        ASSERT_EQ(chmod(script.c_str(), 0755), 0);
    }
    std::string Agent() { return home_.HomeDirectory() + "/Library/LaunchAgents/Pkg.plist"; }
    static std::string ModeAndOwner(const std::string& path) {
        struct stat st {};
        if (lstat(path.c_str(), &st) != 0) return "missing";
        return Format("%o %u", st.st_mode & 07777, st.st_uid);
    }

    std::string savedName_;
    TempDir dir_;
    Journal journal_;
    JournalLogger logger_{journal_};
    JournalShell shell_{journal_};
    JournalSignals signals_{journal_};
    FakeHome home_{dir_.path() + "/home"};
    FakeBundle bundle_{dir_.path() + "/home/Apps/Pkg.app/Launcher.app"};
    FakeGestalt gestalt_{0x1068};
    platform::Replace<platform::Shell> useShell_{shell_};
    platform::Replace<platform::ProcessSignals> useSignals_{signals_};
    platform::Replace<platform::Home> useHome_{home_};
    platform::Replace<platform::Bundle> useBundle_{bundle_};
    platform::Replace<platform::Gestalt> useGestalt_{gestalt_};
};

TEST_F(Autostart, TheAgentIsAnXmlPropertyListWithExactlyFiveKeysAndIsReplacedWhole) {
    std::string bundle = bundle_.MainBundlePath();
    ASSERT_TRUE(QVK_Framework_Autostart_Set(true));
    EXPECT_EQ(ReadFile(Agent()),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
              "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
              "<plist version=\"1.0\">\n"
              "<dict>\n"
              "\t<key>Label</key>\n"
              "\t<string>QVK Pkg</string>\n"
              "\t<key>OnDemand</key>\n"
              "\t<false/>\n"
              "\t<key>Program</key>\n"
              "\t<string>" +
                  bundle +
                  "/Contents/MacOS/Launchd Skript</string>\n"
                  "\t<key>RunAtLoad</key>\n"
                  "\t<true/>\n"
                  "\t<key>WorkingDirectory</key>\n"
                  "\t<string>" +
                  bundle +
                  "</string>\n"
                  "</dict>\n"
                  "</plist>\n");
    std::optional<Value> parsed = platform::ReadPropertyList(Agent());
    ASSERT_TRUE(parsed && parsed->AsDictionary());
    EXPECT_EQ(*parsed, Value(Dictionary{{"Label", Value("QVK Pkg")},
                                        {"WorkingDirectory", Value(bundle)},
                                        {"Program", Value(bundle + "/Contents/MacOS/Launchd Skript")},
                                        {"RunAtLoad", Value(true)},
                                        {"OnDemand", Value(false)}}));
    EXPECT_EQ(ModeAndOwner(home_.HomeDirectory() + "/Library"), "755 0");
    EXPECT_EQ(ModeAndOwner(home_.HomeDirectory() + "/Library/LaunchAgents"), "755 0");
    EXPECT_EQ(ModeAndOwner(Agent()), "644 0");
    EXPECT_THAT(Only(journal_, [](const std::string& l) { return l.starts_with("CreateLaunchdItem"); }),
                ElementsAre("CreateLaunchdItem: <trace>",
                            "CreateLaunchdItem: Launchd skript: " + bundle + "/Contents/MacOS/Launchd Skript",
                            "CreateLaunchdItem: Launchd Dir: " + home_.HomeDirectory() + "/Library/LaunchAgents",
                            "CreateLaunchdItem: Launchd path: " + Agent()));

    // A moved installation: the override is used as it is, and the old file gives way entirely.
    std::string moved = dir_.path() + "/Moved/Pkg.app/Launcher.app";
    MakeLauncher(moved);
    AutostartBundleOverride = moved;
    ASSERT_TRUE(QVK_Framework_Autostart_Set(true));
    parsed = platform::ReadPropertyList(Agent());
    ASSERT_TRUE(parsed);
    EXPECT_EQ((*parsed)["WorkingDirectory"], Value(moved));
    EXPECT_EQ((*parsed)["Program"], Value(moved + "/Contents/MacOS/Launchd Skript"));
    EXPECT_EQ(parsed->AsDictionary()->size(), 5u);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(home_.HomeDirectory() + "/Library/LaunchAgents"),
                            std::filesystem::directory_iterator()),
              1)
        << "no temporary file is left behind";
}

TEST_F(Autostart, NothingIsWrittenBefore10_4OrWithoutAnExecutableScript) {
    FakeGestalt tiger{0x103F};
    {
        platform::Replace<platform::Gestalt> useTiger{tiger};
        EXPECT_FALSE(QVK_Framework_Autostart_Set(true));
    }
    ASSERT_EQ(chmod((bundle_.MainBundlePath() + "/Contents/MacOS/Launchd Skript").c_str(), 0644), 0);
    EXPECT_FALSE(QVK_Framework_Autostart_Set(true));
    EXPECT_FALSE(std::filesystem::exists(home_.HomeDirectory() + "/Library"));

    FakeGestalt tigerZero{0x1040};
    platform::Replace<platform::Gestalt> useTigerZero{tigerZero};
    ASSERT_EQ(chmod((bundle_.MainBundlePath() + "/Contents/MacOS/Launchd Skript").c_str(), 0755), 0);
    EXPECT_TRUE(QVK_Framework_Autostart_Set(true));
    EXPECT_TRUE(std::filesystem::exists(Agent()));
}

TEST_F(Autostart, TheSuperUserMakesTheAgentAsTheUserOnlyWhereTheUserMayWrite) {
    ASSERT_EQ(geteuid(), 0u) << "this test needs root to act as another user";
    ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
    platform::SetHomeUser(kNobody);
    std::string home = home_.HomeDirectory();

    // A home folder the user may not write in (a HOME pointed at a system folder) gets nothing.
    EXPECT_FALSE(QVK_Framework_Autostart_Set(true));
    EXPECT_FALSE(std::filesystem::exists(home + "/Library"));

    // A folder that is there already keeps its mode.
    ASSERT_EQ(mkdir((home + "/Library").c_str(), 0700), 0);
    ASSERT_EQ(chown((home + "/Library").c_str(), kNobody, kNobody), 0);
    ASSERT_EQ(chown(home.c_str(), kNobody, kNobody), 0);
    ASSERT_TRUE(QVK_Framework_Autostart_Set(true));
    EXPECT_EQ(ModeAndOwner(home + "/Library"), Format("700 %u", kNobody));
    EXPECT_EQ(ModeAndOwner(home + "/Library/LaunchAgents"), Format("755 %u", kNobody));
    EXPECT_EQ(ModeAndOwner(Agent()), Format("644 %u", kNobody));

    // A link in place of the agents folder is not followed.
    std::string elsewhere = dir_.path() + "/elsewhere";
    std::filesystem::create_directories(elsewhere);
    std::filesystem::remove_all(home + "/Library/LaunchAgents");
    std::filesystem::create_directory_symlink(elsewhere, home + "/Library/LaunchAgents");
    EXPECT_FALSE(QVK_Framework_Autostart_Set(true));
    EXPECT_TRUE(std::filesystem::is_empty(elsewhere));
}

TEST_F(Autostart, SwitchingOffRemovesTheAgentAndItsJobAndEndsTheLaunchersOfThisBundle) {
    ASSERT_TRUE(QVK_Framework_Autostart_Set(true));
    std::string bundle = bundle_.MainBundlePath();
    std::string target = bundle + "/Launcher.app/Contents/MacOS/Launcher";
    // Stands in for "ps" on the search path.
    std::string tools = dir_.path() + "/tools";
    std::string upper = target;
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    WriteFile(tools + "/listing",
              "  PID COMMAND\n"
              "  101 " +
                  target +
                  "\n"
                  "102 " +
                  target +
                  " --qvk-uninstall\n"
                  "\t103\t" +
                  upper +
                  "X\n"
                  "  104 " +
                  bundle +
                  "/Contents/MacOS/Launcher\n"
                  "  105 /bin/sh -c " +
                  target +
                  "\n"
                  "    0 " +
                  target +
                  "\n"
                  "   -1 " +
                  target +
                  "\n"
                  "  no " +
                  target + "\n");
    journal_.clear();

    WithSuperUserTool(
        "ps", "#!/bin/sh\necho \"$*\" >\"" + tools + "/arguments\"\ncat \"" + tools + "/listing\"\n", [&] {
            QVK_Framework_Autostart_Tidyup participant;
            participant.QVK_Framework_Tidyup_Action(true);
            EXPECT_FALSE(std::filesystem::exists(Agent()));
            EXPECT_EQ(ReadFile(tools + "/arguments"), "axww -o pid,command\n");
            EXPECT_THAT(
                Only(journal_, [](const std::string& l) { return l.starts_with("$ ") || l.starts_with("kill "); }),
                ElementsAre("$ /bin/launchctl remove \"QVK Pkg\"", "kill 101 15", "kill 102 15", "kill 103 15"));
        });
}

TEST_F(Autostart, TheLaunchdCommandIsRefusedWhenTheNameCouldLeaveItsQuotesOrTheCommandWouldNotFit) {
    auto commands = [this] { return Only(journal_, [](const std::string& l) { return l.starts_with("$ "); }); };
    const std::string prefix = "/bin/launchctl remove \"QVK ";
    // 1023 bytes and the terminating zero fill the buffer exactly.
    QVK_Framework_ApplicationName = std::string(1023 - prefix.size() - 1, 'n');
    KillLauncher();
    ASSERT_EQ(commands().size(), 1u);
    EXPECT_EQ(commands()[0].size(), 2 + 1023u);

    for (const std::string& name : {std::string(1023 - prefix.size(), 'n'), std::string("Pkg\" ; rm -rf / \"")}) {
        journal_.clear();
        QVK_Framework_ApplicationName = name;
        KillLauncher();
        EXPECT_THAT(commands(), IsEmpty());
        EXPECT_EQ(Only(journal_, [](const std::string& l) { return l.starts_with("KillLauncher (Errors)"); }).size(),
                  1u);
    }
}

TEST_F(Autostart, AnApplicationWithoutDisplayNameGivesTheAgentAndItsJobAnEmptyName) {
    WritePlist(dir_.path() + "/home/Apps/Pkg.app/Contents/Info.plist",
               {{"CFBundleName", Value("Pkg")}, {"CFBundleVersion", Value("1")}});
    Scoped<const char*> name{QVK_Framework_Project_Name, QVK_Framework_Project_Name};
    Scoped<const char*> application{QVK_Framework_Project_Name_Application, QVK_Framework_Project_Name_Application};
    Scoped<const char*> bundleName{QVK_Framework_Project_Name_Bundle, QVK_Framework_Project_Name_Bundle};
    Scoped<std::string> identifier{QVK_Framework_Project_Identifier, "unchanged"};
    ForgetBundleDictionaryForTesting();
    GetAppName();
    ForgetBundleDictionaryForTesting();
    EXPECT_EQ(QVK_Framework_Project_Identifier, "");

    ASSERT_TRUE(QVK_Framework_Autostart_Set(true));
    std::string agent = home_.HomeDirectory() + "/Library/LaunchAgents/.plist";
    std::optional<Value> parsed = platform::ReadPropertyList(agent);
    ASSERT_TRUE(parsed) << "the agent file is named by the empty name";
    EXPECT_EQ((*parsed)["Label"], Value("QVK "));
    journal_.clear();
    KillLauncher();
    EXPECT_THAT(Only(journal_, [](const std::string& l) { return l.starts_with("$ "); }),
                ElementsAre("$ /bin/launchctl remove \"QVK \""));
}

TEST_F(Autostart, LoginItemsCountOnlyBefore10_4ThenTheAgentDecides) {
    std::string bundle = bundle_.MainBundlePath();
    auto loginItems = [&](const Array& items) {
        WriteFile(home_.HomeDirectory() + "/Library/Preferences/loginwindow.plist",
                  platform::XmlPropertyList(Value(Dictionary{{"AutoLaunchedApplicationDictionary", Value(items)}})));
    };
    FakeGestalt panther{0x1039};
    {
        platform::Replace<platform::Gestalt> usePanther{panther};
        EXPECT_FALSE(QVK_Framework_Autostart_IsEnabled());
        loginItems({Value(Dictionary{{"Path", Value("/Applications/Other.app")}}),
                    Value(Dictionary{{"QVK Launcher Launcher", Value(true)}})});
        EXPECT_TRUE(QVK_Framework_Autostart_IsEnabled()) << "the marker key";
        loginItems({Value(Dictionary{{"Path", Value("~/Apps/Pkg.app/Launcher.app")}})});
        EXPECT_TRUE(QVK_Framework_Autostart_IsEnabled()) << "the path, tilde expanded";
        loginItems({Value(Dictionary{{"Path", Value(bundle + "/")}})});
        EXPECT_FALSE(QVK_Framework_Autostart_IsEnabled());
    }
    loginItems({Value(Dictionary{{"QVK Launcher Launcher", Value(true)}})});
    EXPECT_FALSE(QVK_Framework_Autostart_IsEnabled()) << "from 10.4 on only the agent counts";
    ASSERT_TRUE(QVK_Framework_Autostart_Set(true));
    EXPECT_TRUE(QVK_Framework_Autostart_IsEnabled());
    ASSERT_EQ(chmod((bundle + "/Contents/MacOS/Launchd Skript").c_str(), 0644), 0);
    EXPECT_FALSE(QVK_Framework_Autostart_IsEnabled()) << "the agent's program must be executable";
}

}  // namespace
}  // namespace qvk::test
