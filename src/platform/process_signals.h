// Signals to other processes. A seam, so that stopping processes can be followed without sending
// anything.
#pragma once

#include <sys/types.h>

namespace qvk::platform {

class ProcessSignals {
public:
    virtual ~ProcessSignals() = default;
    // kill: 0 on success, -1 with errno set on failure.
    virtual int Kill(pid_t pid, int signal) = 0;
};

}  // namespace qvk::platform
