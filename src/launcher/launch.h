// Starting the connection application when a supported modem was plugged in.
#pragma once

// Whether the user's marker "<home>/.Quorvik-NoLaunch-Brisel", which stops every start of the
// application and of the Launcher's service, exists.
bool NoLaunchMarkerExists();

// Ends the process (status 0) when the user's no-launch marker exists; otherwise, unless the
// request comes within 2 seconds of the previous one or the application's preference
// "QVK Run Launcher" is 0, runs "/usr/bin/open -a" with the application's folder.
void LaunchMyApplication();

// Always false: no check of running processes is made.
bool ApplicationIsRunning();

// Forgets the time of the previous request, so that a test starts without one.
void ForgetPreviousLaunchForTesting();
