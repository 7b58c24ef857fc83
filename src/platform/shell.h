// The command interpreter: `system` runs a command text through "/bin/sh -c".
#pragma once

#include <string>

namespace qvk::platform {

class Shell {
public:
    virtual ~Shell() = default;
    // Runs the command and waits for it; the raw wait status, as `system` gives it.
    virtual int System(const std::string& command) = 0;
};

}  // namespace qvk::platform
