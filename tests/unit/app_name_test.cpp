#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "framework/base/identity.h"
#include "launcher/app_name.h"
#include "launcher/file_path.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;

class AppName : public ::testing::Test {
protected:
    void SetUp() override {
        ForgetBundleDictionaryForTesting();
        std::filesystem::create_directories(bundle_.MainBundlePath());
    }
    void TearDown() override { ForgetBundleDictionaryForTesting(); }
    void WriteInfo(const char* displayName, const char* version) {
        WritePlist(folder_.path() + "/App.app/Contents/Info.plist", {{"CFBundleDisplayName", displayName},
                                                                     {"CFBundleName", "Quorvik"},
                                                                     {"CFBundleIdentifier", "com.quorvik.Connect"},
                                                                     {"CFBundleVersion", version}});
    }
    TempDir folder_;
    FakeBundle bundle_{folder_.path() + "/App.app/Launcher.app"};
    platform::Replace<platform::Bundle> useBundle_{bundle_};
    CapturingLogger logger_;
};

TEST_F(AppName, FillsTheIdentityAndTakesTheLast13CharactersAsBuildId) {
    QVK_Framework_BuildID_App = "200710.144004";
    WriteInfo("Connect \xc3\xa9", "201104.120000");
    GetAppName();
    EXPECT_EQ(QVK_Framework_ApplicationName, "Connect \xc3\xa9");
    EXPECT_STREQ(QVK_Framework_Project_Name, "Connect \xe9");
    EXPECT_EQ(QVK_Framework_Project_Name_Application, QVK_Framework_Project_Name);
    EXPECT_STREQ(QVK_Framework_Project_Name_Bundle, "Quorvik");
    EXPECT_EQ(QVK_Framework_Project_Identifier, "com.quorvik.Connect");
    EXPECT_STREQ(QVK_Framework_BuildID_App, "201104.120000");
    EXPECT_THAT(logger_.MessagesOf("GetAppName"), ElementsAre("QVK_Framework_BuildID=\"201104.120000\""));
    EXPECT_THAT(logger_.MessagesOf("GetCString"),
                ElementsAre("CFBundleDisplayName -> Connect \xe9", "CFBundleName -> Quorvik"));
    EXPECT_EQ(ParentPath(), folder_.path() + "/App.app/Launcher.app/../Contents");
}

TEST_F(AppName, AShortVersionKeepsTheBuildIdAndANameOutsideLatin1IsEmpty) {
    QVK_Framework_BuildID_App = "200710.144004";
    WriteInfo("Mobile \xe2\x82\xac", "01104.120000");
    GetAppName();
    EXPECT_STREQ(QVK_Framework_BuildID_App, "200710.144004");
    EXPECT_EQ(QVK_Framework_ApplicationName, "Mobile \xe2\x82\xac");
    EXPECT_STREQ(QVK_Framework_Project_Name, "");
    EXPECT_TRUE(logger_.MessagesOf("GetAppName").empty());
    EXPECT_THAT(logger_.MessagesOf("GetCString"), ElementsAre("CFBundleName -> Quorvik"));
}

TEST_F(AppName, AMissingListGivesEmptyNamesAndIsReadAgainLater) {
    GetAppName();
    EXPECT_EQ(QVK_Framework_ApplicationName, "");
    EXPECT_STREQ(QVK_Framework_Project_Name_Bundle, "");
    WriteInfo("Later", "1");
    EXPECT_EQ(GetBundleString("CFBundleDisplayName"), "Later");
}

TEST_F(AppName, FilePathIsBesideTheLauncherBundle) {
    EXPECT_EQ(QVK_Framework_FilePath("NetworkBlocker.xml"),
              folder_.path() + "/App.app/Contents/Resources/NetworkBlocker.xml");
    EXPECT_EQ(QVK_Framework_FilePath(nullptr), std::nullopt);
    EXPECT_THAT(logger_.MessagesOf("QVK_Framework_FilePath"),
                ElementsAre("-> " + folder_.path() + "/App.app/Contents/Resources/NetworkBlocker.xml", "-> nil"));
}

}  // namespace
}  // namespace qvk::test
