// The shared application object and its modal alert panels.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace qvk::platform {

// The button that ended a panel.
enum class AlertReturn { Default, Alternate };

struct AlertAnswer {
    AlertReturn button = AlertReturn::Default;
    // False when nobody could be asked: the default button stands.
    bool asked = false;
    // How the user was asked ("zenity", "kdialog", "terminal"), or why nobody was.
    std::string detail;
};

class AlertPanel {
public:
    virtual ~AlertPanel() = default;
    // Obtains the shared application object: from here on panels are shown to `user`, and never as
    // the super-user for another user; 0 shows them as the process's own user.
    virtual void SharedApplication(std::uint32_t user) = 0;
    // Shows a modal panel and waits for the answer; Return chooses the default button. Without an
    // alternate button the panel is a message with one button.
    virtual AlertAnswer RunAlertPanel(const std::string& title, const std::string& message,
                                      const std::string& defaultButton,
                                      const std::optional<std::string>& alternateButton) = 0;
};

}  // namespace qvk::platform
