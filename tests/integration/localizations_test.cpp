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
    const std::string contents = bundle.MainBundlePath() + "/Contents";
    for (const char* language : {"de", "en", "fr", "fr_FR", "English"})
        std::filesystem::create_directories(contents + "/Resources/" + language + ".lproj");
    languages.Set("LANG", "C.UTF-8");
    WritePlist(contents + "/Info.plist", {{"CFBundleDevelopmentRegion", "Welsh"}});
    EXPECT_THAT(bundle.PreferredLocalizations(), IsEmpty()) << "a development region without its folder";
    // Among given codes English stands in for a user who names none of them.
    EXPECT_THAT(bundle.PreferredLocalizationsFrom({"de", "en"}), ElementsAre("en"));
    EXPECT_THAT(bundle.PreferredLocalizationsFrom({"de"}), IsEmpty());
    WritePlist(contents + "/Info.plist", {{"CFBundleDevelopmentRegion", "English"}});
    EXPECT_THAT(bundle.PreferredLocalizations(), ElementsAre("English"));
    languages.Set("LANG", "fr_FR.UTF-8@euro");
    EXPECT_THAT(bundle.PreferredLocalizations(), ElementsAre("fr_FR", "fr"));
    languages.Set("LANGUAGE", "es:de:xx");
    EXPECT_THAT(bundle.PreferredLocalizations(), ElementsAre("de", "fr_FR", "fr"));
    languages.Set("LC_MESSAGES", "en_GB.UTF-8");
    languages.Set("LC_ALL", "fr.ISO-8859-1");
    EXPECT_THAT(bundle.PreferredLocalizations(), ElementsAre("de", "fr", "en", "fr_FR"));
}

}  // namespace
}  // namespace qvk::test
