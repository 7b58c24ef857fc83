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

// Notes each panel as "title | message | default button | alternate button".
class RecordingPanel : public platform::AlertPanel {
public:
    void SharedApplication(std::uint32_t) override {}
    platform::AlertAnswer RunAlertPanel(const std::string& title, const std::string& message,
                                        const std::string& defaultButton,
                                        const std::optional<std::string>& alternateButton) override {
        shown.push_back(Format("%@ | %@ | %@ | %@", title, message, defaultButton, alternateButton));
        return answer;
    }
    platform::AlertAnswer answer;
    std::vector<std::string> shown;
};

class ConfirmUninstallTest : public ::testing::Test {
protected:
    ConfirmUninstallTest() { ForgetStringsForTesting(); }
    ~ConfirmUninstallTest() override { ForgetStringsForTesting(); }
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
    Scoped<const char*> language_{QVK_PreferredLanguage, nullptr};
    Scoped<std::string> name_{QVK_Framework_ApplicationName, "Quorvik Mobile"};
};

TEST_F(ConfirmUninstallTest, AsksWithNoAsTheDefaultAndAgreesOnlyToTheAlternateButton) {
    InitStrings();
    EXPECT_TRUE(Ask(platform::AlertReturn::Alternate));
    EXPECT_FALSE(Ask(platform::AlertReturn::Default));
    EXPECT_THAT(panel_.shown,
                ElementsAre("Quorvik Mobile | Do you really want to deinstall Quorvik Mobile? | No | Yes",
                            "Quorvik Mobile | Do you really want to deinstall Quorvik Mobile? | No | Yes"));
    EXPECT_TRUE(logger_.MessagesOf("ShowAlertPanel").empty());

    // Nobody to ask means no, and is logged.
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
    QVK_Framework_ApplicationName.clear();
    EXPECT_FALSE(Ask(platform::AlertReturn::Default));
    EXPECT_THAT(panel_.shown, ElementsAre(" |  wirklich entfernen? | No | Ja"));
}

}  // namespace
}  // namespace qvk::test
