// The full uninstall: everything the package put on the machine goes, in one fixed order.
#pragma once

#include <string>

#include "platform/alert_panel.h"

// Removes the companion uninstaller, the package's drivers that are identical to the copies in
// `bundlePath`, the modem script, the receipts, the preference domains and the network service;
// with `killApp` stops the application; then, as `MyUser`, runs the tidy-up actions, removes the
// user's preference domains and moves the user's data folder to the Trash. Needs the super-user
// (asserted); every other failure is passed over and the sequence runs to its end.
void Launcher_PerformCleanup(bool killApp, const std::string& bundlePath);

// Asks the user to restart, in a panel with one button.
qvk::platform::AlertReturn Launcher_ShowRestartMessage();

// Installer receipts of 10.5.1 and later: "/var/db/receipts/<identifier>.package.{plist,bom}".
void KillReceipts_LeopardPlus();
// Installer receipts before 10.6: "/Library/Receipts/<bundle name>.pkg".
void KillReceipts();
// The preference domains of the application and of its updater, for the process's current user.
void KillDefaults();
