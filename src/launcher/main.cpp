// The Launcher: loads the package's drivers, watches for its modems and the application's fate,
// and removes the package on request.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "framework/base/build_definitions.h"
#include "framework/base/global_mutex.h"
#include "framework/base/identity.h"
#include "framework/drivers/load_drivers.h"
#include "framework/log/log.h"
#include "framework/log/logging.h"
#include "framework/privileges/removal_rights.h"
#include "framework/privileges/setuid.h"
#include "framework/privileges/standard_descriptors.h"
#include "launcher/app_name.h"
#include "launcher/confirm_uninstall.h"
#include "launcher/delete_app.h"
#include "launcher/drivers_cleanup.h"
#include "launcher/launch.h"
#include "launcher/my_auto_cleanup.h"
#include "launcher/my_user.h"
#include "launcher/strings.h"
#include "launcher/uninstall.h"
#include "launcher/usb_launcher.h"
#include "platform/alert_panel.h"
#include "platform/bundle.h"
#include "platform/environment.h"
#include "platform/home_user.h"
#include "platform/run_loop.h"
#include "platform/service.h"

int main(int argc, char** argv) {
    // Before anything else, the first log line included: nothing the Launcher opens may become a
    // standard descriptor.
    QVK_Framework_OpenStandardDescriptors();
    QVK_Log_Internal("main", "Main", 42, 1, "NoneLaunch");
    // Pin the bundle's place now: a later move of the application must not change it.
    qvk::platform::Use<qvk::platform::Bundle>().MainBundlePath();
    MyUser = QVK_Framework_HandleSetuid(argc, argv);
    qvk::platform::SetHomeUser(MyUser);
    bool installationMoved = std::getenv(qvk::platform::kInstallationMoved) != nullptr;

    QVK_Framework_BuildID_App = QVK_Framework_BuildID;
    InitStrings();
    GetAppName();
    QVK_Framework_CreateGlobalMutex();
    // Panels appear to the user the Launcher acts for.
    qvk::platform::Use<qvk::platform::AlertPanel>().SharedApplication(MyUser);

    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--qvk-uninstall") == 0) {
            QVK_Framework_Log_Internal("main", "Main", 68, 5, "Found --qvk-uninstall");
            if (!QVK_Framework_MayRemovePackage()) return 1;
            if (!ConfirmUninstall()) return 0;
            Launcher_DeleteApp();
            Launcher_PerformCleanup(true, qvk::platform::Use<qvk::platform::Bundle>().MainBundlePath());
            Launcher_ShowRestartMessage();
            return 0;
        }
        if (std::strcmp(argv[i], "--qvk-drivers-uninstall") == 0) {
            QVK_Framework_Log_Internal("main", "Main", 79, 5, "BRISEL Found --qvk-uninstall");
            if (!QVK_Framework_MayRemovePackage()) return 1;
            Launcher_DriversCleanup();
            return 0;
        }
    }

    if (NoLaunchMarkerExists()) return 0;

    if (!installationMoved) QVK_Framework_LoadDrivers(false, std::nullopt, nullptr);
    DoAutoCleanup();
    QVK_Framework_Use_USBLauncher();
    QVK_Framework_Port_Module::Class::QVK_Framework_PortModule_Start();
    qvk::platform::Use<qvk::platform::RunLoop>().Run();
    return 0;
}
