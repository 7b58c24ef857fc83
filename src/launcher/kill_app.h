// Stopping the installed application's running processes.
#pragma once

// Sends the termination signal to every process whose command path contains the application
// folder, as "ps" lists them, except the Launcher itself.
void Launcher_KillApp();
