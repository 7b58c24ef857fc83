#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "framework/base/identity.h"
#include "framework/privileges/setuid.h"
#include "launcher/confirm_uninstall.h"
#include "launcher/strings.h"
#include "platform/alert_panel.h"
#include "test_support.h"

namespace qvk::test {
namespace {

using ::testing::ElementsAre;

class RecordingPanel : public platform::AlertPanel {
public:
    struct Shown {
        std::string title, message, defaultButton;
        std::optional<std::string> alternateButton;
    };
    void SharedApplication(std::uint32_t) override {}
    platform::AlertAnswer RunAlertPanel(const std::string& title, const std::string& message,
                                        const std::string& defaultButton,
                                        const std::optional<std::string>& alternateButton) override {
        shown.push_back({title, message, defaultButton, alternateButton});
        return answer;
    }
    platform::AlertAnswer answer;
    std::vector<Shown> shown;
};

class ConfirmUninstallTest : public ::testing::Test {
protected:
    void SetUp() override {
        ForgetStringsForTesting();
        QVK_PreferredLanguage = nullptr;
        savedName_ = QVK_Framework_ApplicationName;
        QVK_Framework_ApplicationName = "Quorvik Mobile";
    }
    void TearDown() override {
        ForgetStringsForTesting();
        QVK_PreferredLanguage = nullptr;
        QVK_Framework_ApplicationName = savedName_;
    }
    bool Ask(platform::AlertReturn button, bool asked = true) {
        panel_.answer = {button, asked, asked ? "zenity" : "no display and no terminal"};
        return ConfirmUninstall();
    }

    TempDir folder_;
    FakeBundle bundle_{folder_.path() + "/Launcher.app"};
    platform::Replace<platform::Bundle> useBundle_{bundle_};
    FakeGestalt gestalt_{0x1068};
    platform::Replace<platform::Gestalt> useGestalt_{gestalt_};
    RecordingPanel panel_;
    platform::Replace<platform::AlertPanel> usePanel_{panel_};
    CapturingLogger logger_;
    std::optional<std::string> savedName_;
};

TEST_F(ConfirmUninstallTest, AsksWithNoAsTheDefaultAndAgreesOnlyToTheAlternateButton) {
    InitStrings();
    EXPECT_TRUE(Ask(platform::AlertReturn::Alternate));
    EXPECT_FALSE(Ask(platform::AlertReturn::Default));
    ASSERT_EQ(panel_.shown.size(), 2u);
    EXPECT_EQ(panel_.shown[0].title, "Quorvik Mobile");
    EXPECT_EQ(panel_.shown[0].message, "Do you really want to deinstall Quorvik Mobile?");
    EXPECT_EQ(panel_.shown[0].defaultButton, "No");
    EXPECT_EQ(panel_.shown[0].alternateButton, "Yes");
    EXPECT_TRUE(logger_.MessagesOf("ShowAlertPanel").empty());
}

TEST_F(ConfirmUninstallTest, NobodyToAskMeansNoAndIsLogged) {
    InitStrings();
    EXPECT_FALSE(Ask(platform::AlertReturn::Default, false));
    EXPECT_THAT(logger_.MessagesOf("ShowAlertPanel"),
                ElementsAre("Quorvik Mobile: no display and no terminal; \"No\" answers"));
}

TEST_F(ConfirmUninstallTest, TextsComeFromTheStringsFileForTheChosenLanguage) {
    WriteFile(folder_.path() + "/Launcher.app/Contents/Resources/LauncherStrings",
              "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
              "<key>de:STRING_LAUNCHER_CONFIRM_DEINSTALL_QUERY</key><string>%@ wirklich entfernen?</string>"
              "<key>de:STRING_LAUNCHER_CONFIRM_DEINSTALL_YES</key><string>Ja</string>"
              "</dict></plist>");
    QVK_PreferredLanguage = "de";
    InitStrings();
    QVK_Framework_ApplicationName.reset();
    EXPECT_FALSE(Ask(platform::AlertReturn::Default));
    ASSERT_EQ(panel_.shown.size(), 1u);
    EXPECT_EQ(panel_.shown[0].title, "");
    EXPECT_EQ(panel_.shown[0].message, "(null) wirklich entfernen?");
    EXPECT_EQ(panel_.shown[0].defaultButton, "No");
    EXPECT_EQ(panel_.shown[0].alternateButton, "Ja");
}

}  // namespace
}  // namespace qvk::test
