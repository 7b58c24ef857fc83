// The command interpreter: command texts run as /bin/sh -c would run them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace qvk::platform {

class Shell {
public:
    virtual ~Shell() = default;
    // Runs the command and waits for it; the raw wait status, as `system` gives it.
    virtual int System(const std::string& command) = 0;
    // The same, with the identity and home folder of `user` (the super-user's own for 0).
    virtual int SystemAsUser(const std::string& command, std::uint32_t user) = 0;
    // Runs the command with its standard output read to the end, as `popen` and `pclose` do; the
    // raw wait status goes to `status`. None when no process could be started.
    virtual std::optional<std::string> Output(const std::string& command, int& status) = 0;
};

}  // namespace qvk::platform
