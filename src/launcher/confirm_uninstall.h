// The question before a full uninstall.
#pragma once

// True only when the user chose the yes button; the default button, Return, says no.
bool ConfirmUninstall();
