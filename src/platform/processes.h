// Starting other programs. Every child of the process starts here, so that what it inherits is
// decided in one place: the argument vector and environment it is given, the identity it runs
// with, no descriptor above 2 and default signal handling. A seam, so that the programs started
// can be followed without running them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qvk::platform {

struct ChildProgram {
    // An absolute path, or a bare name looked up in the PATH of `environment` as /bin/sh does.
    std::string program;
    // The argument vector, its first entry included.
    std::vector<std::string> arguments;
    std::vector<std::string> environment;
    // Run with this user's ids, groups and home folder (HOME, USER, LOGNAME). Only a super-user
    // process switches, and only to a user other than 0; any other process runs it as itself.
    std::optional<std::uint32_t> user;
    // With real and effective ids that differ, drop to the real ones, as /bin/sh does.
    bool shellIdentity = false;
};

class Processes {
public:
    virtual ~Processes() = default;
    // Runs the program and waits for it: the raw wait status; -1 with errno set when it could not
    // be started (errno is then the reason the program could not be executed, ENOENT when none of
    // the places of a bare name holds it).
    virtual int Run(const ChildProgram& child) = 0;
    // As Run, with the program's standard output collected into `output`.
    virtual int RunForOutput(const ChildProgram& child, std::string& output) = 0;
    // Starts the program without waiting: its process id; -1 with errno set on failure. Whether the
    // program itself could be executed is not known to the caller.
    virtual pid_t Start(const ChildProgram& child) = 0;
    // Waits for a started child: its raw wait status; -1 with errno set on failure.
    virtual int Wait(pid_t pid) = 0;
    // Replaces this process by the program; returns -1 with errno set only when that failed, and
    // the process may then already have taken the child's identity.
    virtual int Replace(const ChildProgram& child) = 0;
};

}  // namespace qvk::platform
