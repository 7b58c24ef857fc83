#include "launcher/confirm_uninstall.h"

#include <string>

#include "framework/base/identity.h"
#include "launcher/alert.h"
#include "launcher/strings.h"
#include "platform/format.h"

bool ConfirmUninstall() {
    std::string question =
        qvk::Format(LocalizedText("STRING_LAUNCHER_CONFIRM_DEINSTALL_QUERY"), QVK_Framework_ApplicationName);
    std::string yes = LocalizedText("STRING_LAUNCHER_CONFIRM_DEINSTALL_YES");
    std::string no = LocalizedText("STRING_LAUNCHER_CONFIRM_DEINSTALL_NO");
    // The safe answer is the default button.
    return ShowAlertPanel(QVK_Framework_ApplicationName, question, no, yes) == qvk::platform::AlertReturn::Alternate;
}
