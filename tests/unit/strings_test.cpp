// The application's names from its property list, and the Launcher's localized texts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "framework/base/identity.h"
#include "framework/privileges/setuid.h"
#include "language_environment.h"
#include "launcher/app_name.h"
#include "launcher/strings.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;

TEST(AppName, TheBuildIdIsTheVersionsLast13CharactersAndANameOutsideLatin1IsEmpty) {
    TempDir folder;
    FakeBundle bundle{folder.path() + "/App.app/Launcher.app"};
    platform::Replace<platform::Bundle> useBundle{bundle};
    std::filesystem::create_directories(bundle.MainBundlePath());
    auto run = [&](const char* displayName, const char* version) {
        ForgetBundleDictionaryForTesting();
        QVK_Framework_BuildID_App = "200710.144004";
        WritePlist(folder.path() + "/App.app/Contents/Info.plist",
                   {{"CFBundleDisplayName", displayName}, {"CFBundleName", "Quorvik"}, {"CFBundleVersion", version}});
        GetAppName();
        return std::string(QVK_Framework_BuildID_App);
    };
    EXPECT_EQ(run("Connect \xc3\xa9", "x201104.120000"), "201104.120000");
    EXPECT_STREQ(QVK_Framework_Project_Name, "Connect \xe9");
    EXPECT_EQ(run("Mobile \xe2\x82\xac", "01104.120000"), "200710.144004");
    EXPECT_EQ(QVK_Framework_ApplicationName, "Mobile \xe2\x82\xac");
    EXPECT_STREQ(QVK_Framework_Project_Name, "");
    ForgetBundleDictionaryForTesting();
}

class LocalizedStrings : public ::testing::Test {
protected:
    LocalizedStrings() { ForgetStringsForTesting(); }
    ~LocalizedStrings() override { ForgetStringsForTesting(); }
    void Init(const char* language, const std::string& entries) {
        ForgetStringsForTesting();
        QVK_PreferredLanguage = language;
        WriteFile(folder_.path() + "/Launcher.app/Contents/Resources/LauncherStrings",
                  "<plist version=\"1.0\"><dict>" + entries + "</dict></plist>");
        InitStrings();
    }
    static std::string Text(const char* key) {
        const Value* text = GetLocalizedString(key);
        return text && text->AsString() ? *text->AsString() : "<null>";
    }
    std::string Localizations() const { return logger_.MessagesOf("InitLocalizations").back(); }

    TempDir folder_;
    FakeBundle bundle_{folder_.path() + "/Launcher.app"};
    platform::Replace<platform::Bundle> useBundle_{bundle_};
    FakeGestalt snowLeopard_{0x1068};
    platform::Replace<platform::Gestalt> useGestalt_{snowLeopard_};
    LanguageEnvironment languages_;
    CapturingLogger logger_;
    Scoped<const char*> language_{QVK_PreferredLanguage, nullptr};
};

TEST_F(LocalizedStrings, TheLanguageOptionAndTheStringsFileDecideAndEnglishIsTheFallback) {
    languages_.Set("LANGUAGE", "fr");
    const std::string entries =
        "<key>de:STRING_LAUNCHER_CONFIRM_DEINSTALL_YES</key><string>Ja</string>"
        "<key>en:STRING_LAUNCHER_MESSAGE_DEINSTALL</key><string>%@ is gone</string>"
        "<key>en:STRING_LAUNCHER_CONFIRM_DEINSTALL_QUERY</key><integer>3</integer>"
        "<key>es:STRING_LAUNCHER_CONFIRM_DEINSTALL_NO</key><string>No, gracias</string>";
    Init("de", entries);
    EXPECT_EQ(Localizations(), "Localizations: (\\n    de,\\n    en\\n)");
    EXPECT_EQ(Text("STRING_LAUNCHER_CONFIRM_DEINSTALL_YES"), "Ja");
    EXPECT_EQ(Text("STRING_LAUNCHER_CONFIRM_DEINSTALL_NO"), "No");
    EXPECT_EQ(Text("STRING_LAUNCHER_MESSAGE_MOVEMENT"), "%@ wurde an den neuen Platz verschobenm");
    EXPECT_EQ(Text("STRING_LAUNCHER_MESSAGE_DEINSTALL"),
              "%@ wurde deinstalliert, aber einige Komponenten verbleiben bis zum n\xc3\xa4"
              "chsten Reboot im System");
    EXPECT_EQ(GetLocalizedString("STRING_LAUNCHER_UNKNOWN"), nullptr);

    Init(nullptr, entries);
    EXPECT_EQ(Localizations(), "Localizations: (\\n    en\\n)") << "the user's languages play no part";
    EXPECT_EQ(Text("STRING_LAUNCHER_MESSAGE_DEINSTALL"), "%@ is gone");
    // A text that is no string falls back to its key, and is logged.
    EXPECT_EQ(LocalizedText("STRING_LAUNCHER_CONFIRM_DEINSTALL_YES"), "Yes");
    EXPECT_EQ(LocalizedText("STRING_LAUNCHER_CONFIRM_DEINSTALL_QUERY"), "STRING_LAUNCHER_CONFIRM_DEINSTALL_QUERY");
    EXPECT_THAT(logger_.MessagesOf("LocalizedText"),
                ElementsAre("No text for STRING_LAUNCHER_CONFIRM_DEINSTALL_QUERY: 3"));
}

TEST_F(LocalizedStrings, BelowTenSixTheUsersLanguagesComeFirstThoseOfTheFileIncluded) {
    FakeGestalt leopard{0x1058};
    platform::Replace<platform::Gestalt> useLeopard{leopard};
    languages_.Set("LANGUAGE", "es:de");
    languages_.Set("LANG", "fr_FR.UTF-8@euro");
    Init("fr", "<key>es:STRING_LAUNCHER_MESSAGE_MOVEMENT</key><string>Movido</string>");
    EXPECT_EQ(Text("STRING_LAUNCHER_MESSAGE_MOVEMENT"), "Movido");
    EXPECT_EQ(Localizations(), "Localizations: (\\n    es,\\n    de,\\n    fr,\\n    fr,\\n    en\\n)");
}

}  // namespace
}  // namespace qvk::test
