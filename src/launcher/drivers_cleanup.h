// The drivers-only uninstall.
#pragma once

// Unloads and deletes every driver in the system's driver folder that is marked as installed from
// this application folder (a "Quorvik Source" file, or a link, whose text begins with the folder's
// path), clears the driver caches when one was, deletes the drivers uninstaller, and as `MyUser`
// moves the user's data folder to the Trash. Needs the super-user (asserted).
void Launcher_DriversCleanup();
