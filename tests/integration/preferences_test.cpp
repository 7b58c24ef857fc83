// The user-defaults files of the preferences service: a key removed in place, nothing made for it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "../unit/test_support.h"
#include "platform/preferences.h"
#include "platform/property_list.h"

namespace qvk::test {
namespace {

constexpr unsigned kNobody = 65534;

class PreferencesFiles : public ::testing::Test {
protected:
    std::string Domain(const std::string& name) {
        return home_.HomeDirectory() + "/Library/Preferences/" + name + ".plist";
    }
    void RemoveKey(const std::string& domain) {
        platform::Use<platform::Preferences>().RemoveObjectForKey(domain, "gone");
    }

    TempDir dir_;
    FakeHome home_{dir_.path()};
    platform::Replace<platform::Home> useHome_{home_};
};

TEST_F(PreferencesFiles, ARemovedKeyLeavesTheOtherValuesOwnerAndModeAndNoTemporaryFile) {
    std::string path = Domain("com.quorvik.Launcher");
    WriteFile(path, platform::XmlPropertyList(Value(Dictionary{{"gone", Value(true)}, {"kept", Value("x")}})));
    ASSERT_EQ(chown(path.c_str(), kNobody, kNobody), 0);
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);

    RemoveKey("com.quorvik.Launcher");
    EXPECT_EQ(platform::ReadPropertyList(path), Value(Dictionary{{"kept", Value("x")}}));
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, kNobody);
    EXPECT_EQ(st.st_gid, kNobody);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.path() + "/Library/Preferences"),
                            std::filesystem::directory_iterator()),
              1);
}

TEST_F(PreferencesFiles, NothingIsWrittenWithoutTheKeyOrTheFileAndALinkIsNotFollowed) {
    RemoveKey("com.quorvik.Launcher");
    EXPECT_FALSE(std::filesystem::exists(dir_.path() + "/Library"));

    std::string path = Domain("com.quorvik.Launcher");
    WriteFile(path, platform::XmlPropertyList(Value(Dictionary{{"kept", Value("x")}})));
    struct stat before {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    RemoveKey("com.quorvik.Launcher");
    struct stat after {};
    ASSERT_EQ(stat(path.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino) << "not rewritten";

    std::string target = dir_.path() + "/target.plist";
    std::string original = platform::XmlPropertyList(Value(Dictionary{{"gone", Value(true)}}));
    WriteFile(target, original);
    std::filesystem::create_symlink(target, Domain("linked"));
    RemoveKey("linked");
    EXPECT_EQ(ReadFile(target), original);
    EXPECT_TRUE(std::filesystem::is_symlink(Domain("linked")));

    WriteFile(Domain("broken"), "no property list");
    RemoveKey("broken");
    EXPECT_EQ(ReadFile(Domain("broken")), "no property list");
}

TEST_F(PreferencesFiles, TheStandardDomainIsTheMainBundlesIdentifierElseTheExecutablesName) {
    FakeBundle bundle(dir_.path() + "/Launcher.app");
    platform::Replace<platform::Bundle> useBundle(bundle);
    auto& preferences = platform::Use<platform::Preferences>();
    EXPECT_EQ(preferences.StandardDomain(), "Launcher");
    WriteFile(bundle.MainBundlePath() + "/Contents/Info.plist",
              platform::XmlPropertyList(Value(Dictionary{{"CFBundleIdentifier", Value("com.quorvik.Launcher")}})));
    EXPECT_EQ(preferences.StandardDomain(), "com.quorvik.Launcher");
}

}  // namespace
}  // namespace qvk::test
