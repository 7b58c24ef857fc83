// Who the process runs as, and the calls that change it: user ids, the owner and mode of a file,
// and the replacement of the process image. A seam, so that the set-user-id hand-over can be
// followed step by step without privileges.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace qvk::platform {

class ProcessIdentity {
public:
    virtual ~ProcessIdentity() = default;
    virtual std::uint32_t RealUserID() = 0;
    virtual std::uint32_t EffectiveUserID() = 0;
    // setuid: 0 on success, -1 with errno set on failure (as every call below).
    virtual int SetUserID(std::uint32_t uid) = 0;
    virtual int ChangeOwner(const std::string& path, std::uint32_t uid, std::uint32_t gid) = 0;
    virtual int ChangeMode(const std::string& path, mode_t mode) = 0;
    // execve: returns only when the process image could not be replaced.
    virtual int Execute(const std::string& path, char* const argv[], char* const envp[]) = 0;
};

}  // namespace qvk::platform
