#include "launcher/my_auto_cleanup.h"

#include <unistd.h>

#include <cstdlib>

#include "framework/base/identity.h"
#include "framework/basic/autostart.h"
#include "framework/basic/tidyup.h"
#include "framework/log/logging.h"
#include "launcher/my_user.h"
#include "launcher/uninstall.h"
#include "platform/environment.h"
#include "platform/preferences.h"
#include "platform/processes.h"
#include "platform/service.h"

std::shared_ptr<MyAutoCleanup> AutoCleanup;

namespace {

// "/usr/bin/open -a <launcher>" for the user, with the whole (allowed) environment.
qvk::platform::ChildProgram OpenLauncher(const std::string& launcher) {
    return {"/usr/bin/open", {"/usr/bin/open", "-a", launcher}, qvk::platform::ChildEnvironment(), MyUser, false};
}

}  // namespace

void MyAutoCleanup::QVK_Framework_FileMonitor_Triggered(const qvk::Data* event) {
    if (!event) return;
    QVK_Framework_AutoCleanup::QVK_Framework_FileMonitor_Triggered(event);
    std::optional<std::string> current;
    if (QVK_Framework_AutoCleanup_IsTrashedApp(&current)) {
        Launcher_PerformCleanup(false, *current);
        Launcher_ShowRestartMessage();
        std::exit(0);
    }

    QVK_Framework_Tidyup(false);
    AutostartBundleOverride = qvk::Format("%@/Launcher.app", current);
    QVK_Framework_Log_Internal("-[MyAutoCleanup QVK_Framework_FileMonitor_Triggered:]", "MyAutoCleanup", 479, 5,
                               "New launcher path: %@", AutostartBundleOverride);
    QVK_Framework_Autostart_Set(true);
    setenv(qvk::platform::kInstallationMoved, "yes", 1);
    // The launcher at its new place replaces this one; should that fail, a child tries once more.
    auto& processes = qvk::platform::Use<qvk::platform::Processes>();
    qvk::platform::ChildProgram open = OpenLauncher(*AutostartBundleOverride);
    processes.Replace(open);
    processes.Start(open);
    std::exit(0);
}

void DoAutoCleanup() {
    QVK_Framework_Log_Internal("DoAutoCleanup", "MyAutoCleanup", 509, 5, nullptr);
    auto& defaults = qvk::platform::Use<qvk::platform::Preferences>();
    defaults.RemoveObjectForKey(defaults.StandardDomain(),
                                qvk::Format("QVK Autostart Installed %s", QVK_Framework_BuildID_App));
    if (!AutoCleanup) {
        auto monitor = std::make_shared<MyAutoCleanup>();
        if (monitor->init()) AutoCleanup = std::move(monitor);
    }
}
