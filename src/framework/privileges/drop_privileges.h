// Giving up the super-user again.
#pragma once

#include <cstdint>

#include "platform/alert_panel.h"

// Makes the process run as one ordinary user, with that user's groups and home folder: the
// effective user, or the real one when the effective user is the super-user.
void QVK_Framework_DropPrivileges();

// Obtains the shared application object of `applicationClass` and drops to the user; the order
// depends on the system version. Below 10.6 the process becomes its real user and the object is
// returned; from 10.6 on it becomes `userId` (unless 0) and nothing is returned.
qvk::platform::AlertPanel* QVK_Framework_SharedAppAndDropPrivileges(qvk::platform::AlertPanel& applicationClass,
                                                                    std::uint32_t userId);
