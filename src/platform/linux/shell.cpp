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

ChildProgram CommandProgram(const std::string& command) {
    ChildProgram child;
    if (std::optional<std::vector<std::string>> words = SimpleCommandWords(command)) {
        child.program = words->front();
        child.arguments = std::move(*words);
    } else {
        child.program = "/bin/sh";
        child.arguments = {"sh", "-c", command};
    }
    child.environment = ChildEnvironment();
    child.shellIdentity = true;
    return child;
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
    int System(const std::string& command) override {
        return ShellStatus(Use<Processes>().Run(CommandProgram(command)));
    }

    int SystemAsUser(const std::string& command, std::uint32_t user) override {
        ChildProgram child = CommandProgram(command);
        child.user = user;
        return ShellStatus(Use<Processes>().Run(child));
    }

    std::optional<std::string> Output(const std::string& command, int& status) override {
        std::string output;
        status = ShellStatus(Use<Processes>().RunForOutput(CommandProgram(command), output));
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
