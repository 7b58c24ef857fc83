// Starting the Launcher at every login of the user, and undoing it. From 10.4 on a per-user launchd
// agent in the home folder's Library/LaunchAgents starts the "Launchd Skript" inside the launcher
// bundle; switching off deletes the agent, removes its job from launchd and ends the running
// launchers of the installation. Older systems are only asked whether the Launcher is one of the
// user's login items. Everything in the home folder is done with the home user's file-system
// identity, so what is made there belongs to that user.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "framework/basic/tidyup.h"
#include "platform/value.h"

// When set, the launcher bundle that autostart entries point at instead of the running one (after
// the installation was moved).
extern std::optional<std::string> AutostartBundleOverride;
// When set, a path component appended to the running bundle's path to find the autostart bundle.
extern std::optional<std::string> AutostartBundle;

// On: writes the agent, true when it was written. Off: removes the agent and ends the launchers;
// the result then means nothing.
bool QVK_Framework_Autostart_Set(bool on);
// Whether an autostart entry for this installation exists.
bool QVK_Framework_Autostart_IsEnabled();
void QVK_Framework_Autostart_SetBundle(const std::string& component);

// The one tidy-up participant: whatever the flag, autostart is switched off. Registered under its
// class name for as long as the program runs.
class QVK_Framework_Autostart_Tidyup : public QVK_Framework_Tidyup_Protocol {
public:
    void QVK_Framework_Tidyup_Action(bool flag) override;
};

// "<home>/Library/LaunchAgents", with the file name "<application name>.plist" when asked.
std::string GetLaunchdItemPath(bool withFileName);
// The override when set; else the running bundle (tilde expanded) with AutostartBundle appended.
std::string GetAutostartBundlePath();
bool CreateLaunchdItem();
void RemoveLaunchdItem();
// Whether the agent file names a "Program" that can be executed.
bool CheckLaunchdItem();
// The user's login items; empty when there are none.
qvk::Array GetAutostarts();
// "QVK <project name> <application project name>", built once.
const std::string& MarkerKey();
// Removes the agent's job from launchd, then ends the launchers.
void KillLauncher();
// Sends SIGTERM to every process whose command begins with
// "<running bundle>/Launcher.app/Contents/MacOS/Launcher", ignoring case.
void DoKillLauncher();
