// A command text that is only words and double-quoted strings runs as its argument vector, without
// a shell in between: nothing of the environment or the text can then make the shell do more than
// the command says. Everything else goes to /bin/sh -c.
#include "platform/shell.h"

#include <sys/wait.h>

#include <cerrno>

#include "platform/command_words.h"
#include "platform/environment.h"
#include "platform/processes.h"
#include "platform/service.h"

namespace qvk::platform {

namespace {

ChildSpec CommandSpec(const std::string& command) {
    ChildSpec spec;
    if (std::optional<std::vector<std::string>> words = SimpleCommandWords(command)) {
        spec.program = words->front();
        spec.arguments = std::move(*words);
    } else {
        spec.program = "/bin/sh";
        spec.arguments = {"sh", "-c", command};
    }
    spec.environment = ChildEnvironment();
    spec.shellIdentity = true;
    return spec;
}

// The wait status the shell would have ended with; -1 when no process could be made.
int ShellStatus(int result) {
    if (result != -1) return result;
    switch (errno) {
    case ENOENT:
    case ENOTDIR: return W_EXITCODE(127, 0);
    case EACCES: return W_EXITCODE(126, 0);
    case EAGAIN:
    case ENOMEM: return -1;
    default: return W_EXITCODE(2, 0);
    }
}

class LinuxShell final : public Shell {
public:
    int System(const std::string& command) override { return ShellStatus(Use<Processes>().Run(CommandSpec(command))); }

    int SystemAsUser(const std::string& command, std::uint32_t user) override {
        ChildSpec spec = CommandSpec(command);
        spec.user = user;
        return ShellStatus(Use<Processes>().Run(spec));
    }

    std::optional<std::string> Output(const std::string& command, int& status) override {
        std::string output;
        status = ShellStatus(Use<Processes>().RunForOutput(CommandSpec(command), output));
        if (status == -1) return std::nullopt;
        return output;
    }
};

}  // namespace

template <>
Shell& DefaultService<Shell>() {
    static LinuxShell shell;
    return shell;
}

}  // namespace qvk::platform
