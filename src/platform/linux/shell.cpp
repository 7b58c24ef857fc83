#include "platform/shell.h"

#include <cstdlib>

#include "platform/service.h"

namespace qvk::platform {

namespace {

class LinuxShell final : public Shell {
public:
    int System(const std::string& command) override { return std::system(command.c_str()); }
};

}  // namespace

template <>
Shell& DefaultService<Shell>() {
    static LinuxShell shell;
    return shell;
}

}  // namespace qvk::platform
