#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "framework/privileges/setuid.h"
#include "language_environment.h"
#include "launcher/strings.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;

class LocalizedStrings : public ::testing::Test {
protected:
    LocalizedStrings() { ForgetStringsForTesting(); }
    ~LocalizedStrings() override { ForgetStringsForTesting(); }
    std::string Resources() const { return folder_.path() + "/Launcher.app/Contents/Resources"; }
    void WriteStringsFile(const std::string& entries) {
        WriteFile(
            Resources() + "/LauncherStrings",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>" + entries + "</dict></plist>");
    }
    static std::string Text(const char* key) {
        const Value* text = GetLocalizedString(key);
        return text && text->AsString() ? *text->AsString() : "<null>";
    }

    TempDir folder_;
    FakeBundle bundle_{folder_.path() + "/Launcher.app"};
    platform::Replace<platform::Bundle> useBundle_{bundle_};
    FakeGestalt snowLeopardOrLater_{0x1068};
    platform::Replace<platform::Gestalt> useGestalt_{snowLeopardOrLater_};
    LanguageEnvironment languages_;
    CapturingLogger logger_;
    Scoped<const char*> language_{QVK_PreferredLanguage, nullptr};
};

TEST_F(LocalizedStrings, WithoutLanguageOptionTextsAreEnglishAndTheUserLanguagePlaysNoPart) {
    languages_.Set("LANGUAGE", "de:fr");
    InitStrings();
    EXPECT_EQ(Text("STRING_LAUNCHER_MESSAGE_DEINSTALL"),
              "%@ has been deinstalled, but some parts remain in the system until the next restart");
    EXPECT_EQ(Text("STRING_LAUNCHER_MESSAGE_MOVEMENT"),
              "The %@ installation has been successfully moved to the new location");
    EXPECT_EQ(GetLocalizedString("STRING_LAUNCHER_UNKNOWN"), nullptr);
    EXPECT_EQ(GetLocalizedString(""), nullptr);
    EXPECT_THAT(logger_.MessagesOf("InitLocalizations"), ElementsAre("Localizations: (\\n    en\\n)"));

    // A strings file that is no dictionary is ignored like a missing one.
    ForgetStringsForTesting();
    WriteFile(Resources() + "/LauncherStrings", platform::XmlPropertyList(Value(Array{"x"})));
    InitStrings();
    EXPECT_EQ(Text("STRING_LAUNCHER_CONFIRM_DEINSTALL_YES"), "Yes");
    EXPECT_THAT(logger_.MessagesOf("LoadDictionary"),
                ElementsAre(Resources() + "/LauncherStrings -> (null)", Resources() + "/LauncherStrings -> (null)"));
}

TEST_F(LocalizedStrings, LanguageOptionGivesGermanTextsWithEnglishFallback) {
    QVK_PreferredLanguage = "de";
    InitStrings();
    EXPECT_EQ(Text("STRING_LAUNCHER_MESSAGE_MOVEMENT"), "%@ wurde an den neuen Platz verschobenm");
    EXPECT_EQ(Text("STRING_LAUNCHER_MESSAGE_DEINSTALL"),
              "%@ wurde deinstalliert, aber einige Komponenten verbleiben bis zum n\xc3\xa4"
              "chsten Reboot im System");
    EXPECT_EQ(Text("STRING_LAUNCHER_CONFIRM_DEINSTALL_YES"), "Yes");
    EXPECT_THAT(logger_.MessagesOf("InitLocalizations"), ElementsAre("Localizations: (\\n    de,\\n    en\\n)"));
}

TEST_F(LocalizedStrings, TheStringsFileAddsLanguagesAndWinsOverBuiltInTexts) {
    WriteStringsFile(
        "<key>de:STRING_LAUNCHER_CONFIRM_DEINSTALL_YES</key><string>Ja</string>"
        "<key>en:STRING_LAUNCHER_MESSAGE_DEINSTALL</key><string>%@ is gone</string>"
        "<key>es:STRING_LAUNCHER_CONFIRM_DEINSTALL_NO</key><string>No, gracias</string>");
    QVK_PreferredLanguage = "de";
    InitStrings();
    EXPECT_EQ(Text("STRING_LAUNCHER_CONFIRM_DEINSTALL_YES"), "Ja");
    EXPECT_EQ(Text("STRING_LAUNCHER_CONFIRM_DEINSTALL_NO"), "No");
    EXPECT_EQ(Text("STRING_LAUNCHER_MESSAGE_MOVEMENT"), "%@ wurde an den neuen Platz verschobenm");
    // German has its own deinstall text; English takes the file's.
    EXPECT_EQ(Text("STRING_LAUNCHER_MESSAGE_DEINSTALL").substr(0, 24), "%@ wurde deinstalliert, ");
    QVK_PreferredLanguage = nullptr;
    ForgetStringsForTesting();
    InitStrings();
    EXPECT_EQ(Text("STRING_LAUNCHER_MESSAGE_DEINSTALL"), "%@ is gone");
    ASSERT_EQ(logger_.MessagesOf("LoadDictionary").size(), 2u);
    EXPECT_THAT(logger_.MessagesOf("LoadDictionary")[0], ::testing::HasSubstr("/LauncherStrings -> {\\n"));
    EXPECT_THAT(logger_.MessagesOf("LoadDictionary")[0],
                ::testing::HasSubstr("\"de:STRING_LAUNCHER_CONFIRM_DEINSTALL_YES\" = Ja;"));
}

TEST_F(LocalizedStrings, BelowTenSixTheUserPreferredLanguagesComeFirst) {
    FakeGestalt leopard{0x1058};
    platform::Replace<platform::Gestalt> useLeopard{leopard};
    languages_.Set("LANG", "fr_FR.UTF-8@euro");
    InitStrings();
    EXPECT_EQ(Text("STRING_LAUNCHER_MESSAGE_MOVEMENT"), "Succ\xc3\xa8s de la d\xc3\xa9sinstallation de %@");
    EXPECT_EQ(Text("STRING_LAUNCHER_CONFIRM_DEINSTALL_YES"), "Yes");
    EXPECT_THAT(logger_.MessagesOf("InitLocalizations"), ElementsAre("Localizations: (\\n    fr,\\n    en\\n)"));

    // Languages only the strings file has take part, in the user's order, ahead of "--lang".
    ForgetStringsForTesting();
    WriteStringsFile("<key>es:STRING_LAUNCHER_MESSAGE_MOVEMENT</key><string>Movido</string>");
    languages_.Set("LANGUAGE", "es:de");
    QVK_PreferredLanguage = "fr";
    InitStrings();
    EXPECT_EQ(Text("STRING_LAUNCHER_MESSAGE_MOVEMENT"), "Movido");
    EXPECT_EQ(Text("STRING_LAUNCHER_MESSAGE_DEINSTALL").substr(0, 24), "%@ wurde deinstalliert, ");
    EXPECT_EQ(logger_.MessagesOf("InitLocalizations").back(),
              "Localizations: (\\n    es,\\n    de,\\n    fr,\\n    fr,\\n    en\\n)");
}

TEST_F(LocalizedStrings, TheTablesAreBuiltOnce) {
    QVK_PreferredLanguage = "de";
    InitStrings();
    WriteStringsFile("<key>de:STRING_LAUNCHER_MESSAGE_MOVEMENT</key><string>Neu</string>");
    QVK_PreferredLanguage = "fr";
    InitStrings();
    EXPECT_EQ(Text("STRING_LAUNCHER_MESSAGE_MOVEMENT"), "%@ wurde an den neuen Platz verschobenm");
    EXPECT_EQ(logger_.MessagesOf("LoadDictionary").size(), 1u);
    EXPECT_EQ(logger_.MessagesOf("InitLocalizations").size(), 1u);
}

TEST_F(LocalizedStrings, LocalizedTextFallsBackToTheKeyAndLogsIt) {
    WriteStringsFile("<key>en:STRING_LAUNCHER_CONFIRM_DEINSTALL_NO</key><integer>3</integer>");
    InitStrings();
    EXPECT_EQ(LocalizedText("STRING_LAUNCHER_CONFIRM_DEINSTALL_YES"), "Yes");
    EXPECT_EQ(LocalizedText("STRING_LAUNCHER_CONFIRM_DEINSTALL_NO"), "STRING_LAUNCHER_CONFIRM_DEINSTALL_NO");
    EXPECT_EQ(LocalizedText("STRING_LAUNCHER_UNKNOWN"), "STRING_LAUNCHER_UNKNOWN");
    EXPECT_THAT(logger_.MessagesOf("LocalizedText"), ElementsAre("No text for STRING_LAUNCHER_CONFIRM_DEINSTALL_NO: 3",
                                                                 "No text for STRING_LAUNCHER_UNKNOWN: (null)"));
}

}  // namespace
}  // namespace qvk::test
