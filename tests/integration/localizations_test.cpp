// The user's language preferences from the locale environment, against real bundle folders.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "../unit/language_environment.h"
#include "../unit/test_support.h"
#include "platform/bundle.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Localizations : public ::testing::Test {
protected:
    void AddLanguages(std::initializer_list<const char*> languages) {
        for (const char* language : languages)
            std::filesystem::create_directories(bundle_.MainBundlePath() + "/Contents/Resources/" + language +
                                                ".lproj");
    }
    void SetDevelopmentRegion(const char* region) {
        WritePlist(bundle_.MainBundlePath() + "/Contents/Info.plist", {{"CFBundleDevelopmentRegion", region}});
    }
    TempDir folder_;
    FakeBundle bundle_{folder_.path() + "/Launcher.app"};
    LanguageEnvironment languages_;
};

TEST_F(Localizations, BundleLanguagesFollowTheUsersOrderAcrossTheLocaleVariables) {
    AddLanguages({"de", "en", "fr", "fr_FR"});
    WriteFile(bundle_.MainBundlePath() + "/Contents/Resources/es.lproj", "a file, not a folder");
    languages_.Set("LANG", "fr_FR.UTF-8@euro");
    EXPECT_THAT(bundle_.PreferredLocalizations(), ElementsAre("fr_FR", "fr"));
    languages_.Set("LANGUAGE", "es:de:xx");
    EXPECT_THAT(bundle_.PreferredLocalizations(), ElementsAre("de", "fr_FR", "fr"));
    languages_.Set("LC_MESSAGES", "en_GB.UTF-8");
    languages_.Set("LC_ALL", "fr.ISO-8859-1");
    EXPECT_THAT(bundle_.PreferredLocalizations(), ElementsAre("de", "fr", "en", "fr_FR"));
}

TEST_F(Localizations, WhenTheUserNamesNoneTheDevelopmentRegionServesIfTheBundleHasIt) {
    AddLanguages({"de", "English"});
    languages_.Set("LANG", "C.UTF-8");
    EXPECT_THAT(bundle_.PreferredLocalizations(), IsEmpty());
    SetDevelopmentRegion("English");
    EXPECT_THAT(bundle_.PreferredLocalizations(), ElementsAre("English"));
    SetDevelopmentRegion("fr");
    EXPECT_THAT(bundle_.PreferredLocalizations(), IsEmpty());
    languages_.Set("LANGUAGE", "de");
    EXPECT_THAT(bundle_.PreferredLocalizations(), ElementsAre("de"));
}

TEST_F(Localizations, AmongGivenCodesTheUsersChoiceElseEnglishElseNothing) {
    std::vector<std::string> available{"de", "en", "es", "fr"};
    EXPECT_THAT(bundle_.PreferredLocalizationsFrom(available), ElementsAre("en"));
    languages_.Set("LANG", "POSIX");
    languages_.Set("LANGUAGE", "pt_BR:es_ES:fr");
    EXPECT_THAT(bundle_.PreferredLocalizationsFrom(available), ElementsAre("es", "fr"));
    EXPECT_THAT(bundle_.PreferredLocalizationsFrom({"de", "it"}), IsEmpty());
    EXPECT_THAT(bundle_.PreferredLocalizationsFrom({}), IsEmpty());
}

}  // namespace
}  // namespace qvk::test
