// Modal panels of the Launcher, shown through the shared application object.
#pragma once

#include <optional>
#include <string>

#include "platform/alert_panel.h"

// The button chosen; when nobody can be asked the default button answers, and that is logged.
qvk::platform::AlertReturn ShowAlertPanel(const std::string& title, const std::string& message,
                                          const std::string& defaultButton,
                                          const std::optional<std::string>& alternateButton);
