#include "launcher/alert.h"

#include "framework/log/logging.h"
#include "platform/service.h"

qvk::platform::AlertReturn ShowAlertPanel(const std::string& title, const std::string& message,
                                          const std::string& defaultButton,
                                          const std::optional<std::string>& alternateButton) {
    qvk::platform::AlertAnswer answer =
        qvk::platform::Use<qvk::platform::AlertPanel>().RunAlertPanel(title, message, defaultButton, alternateButton);
    if (!answer.asked)
        QVK_Framework_Log_Internal("ShowAlertPanel", "Alert", 17, 5, "%@: %@; \"%@\" answers", title, answer.detail,
                                   defaultButton);
    return answer.button;
}
