// The user's language preferences from the locale environment, against real bundle folders.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "../unit/language_environment.h"
#include "../unit/test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(Localizations, BundleLanguagesFollowTheUsersOrderAcrossTheLocaleVariablesElseTheDevelopmentRegion) {
    TempDir folder;
    FakeBundle bundle{folder.path() + "/Launcher.app"};
    LanguageEnvironment languages;
    for (const char* language : {"de", "en", "fr", "fr_FR", "English"})
        std::filesystem::create_directories(bundle.MainBundlePath() + "/Contents/Resources/" + language + ".lproj");
    WriteFile(bundle.MainBundlePath() + "/Contents/Resources/es.lproj", "a file, not a folder");
    languages.Set("LANG", "C.UTF-8");
    EXPECT_THAT(bundle.PreferredLocalizations(), IsEmpty());
    WritePlist(bundle.MainBundlePath() + "/Contents/Info.plist", {{"CFBundleDevelopmentRegion", "English"}});
    EXPECT_THAT(bundle.PreferredLocalizations(), ElementsAre("English"));
    languages.Set("LANG", "fr_FR.UTF-8@euro");
    EXPECT_THAT(bundle.PreferredLocalizations(), ElementsAre("fr_FR", "fr"));
    languages.Set("LANGUAGE", "es:de:xx");
    EXPECT_THAT(bundle.PreferredLocalizations(), ElementsAre("de", "fr_FR", "fr"));
    languages.Set("LC_MESSAGES", "en_GB.UTF-8");
    languages.Set("LC_ALL", "fr.ISO-8859-1");
    EXPECT_THAT(bundle.PreferredLocalizations(), ElementsAre("de", "fr", "en", "fr_FR"));
}

TEST(Localizations, AmongGivenCodesTheUsersChoiceElseEnglishElseNothing) {
    FakeBundle bundle{"/nonexistent/Launcher.app"};
    LanguageEnvironment languages;
    std::vector<std::string> available{"de", "en", "es", "fr"};
    EXPECT_THAT(bundle.PreferredLocalizationsFrom(available), ElementsAre("en"));
    languages.Set("LANG", "POSIX");
    languages.Set("LANGUAGE", "pt_BR:es_ES:fr");
    EXPECT_THAT(bundle.PreferredLocalizationsFrom(available), ElementsAre("es", "fr"));
    EXPECT_THAT(bundle.PreferredLocalizationsFrom({"de", "it"}), IsEmpty());
}

}  // namespace
}  // namespace qvk::test
