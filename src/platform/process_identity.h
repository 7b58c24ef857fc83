// Who the process runs as, and the calls that change it: the user it becomes, the owner and mode
// of its own executable, and the replacement of the process image by that executable. The file is
// always acted on through a descriptor, so that renaming or replacing its path changes nothing. A
// seam, so that the set-user-id hand-over can be followed step by step without privileges.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "platform/account.h"

namespace qvk::platform {

class ProcessIdentity {
public:
    virtual ~ProcessIdentity() = default;
    virtual std::uint32_t RealUserID() = 0;
    virtual std::uint32_t EffectiveUserID() = 0;
    // The whole identity of `uid`: its account's supplementary groups, group and user id, and its
    // home folder in HOME. 0 is the super-user with group 0 and no supplementary groups (HOME as it
    // is). 0 on success, -1 with errno set on failure (as every call below).
    virtual int BecomeUser(std::uint32_t uid) = 0;
    // Whether this process image was started from a descriptor, as the set-user-id hand-over
    // starts the privileged run; a start by path is not.
    virtual bool StartedFromDescriptor() = 0;
    virtual int ChangeOwner(int fd, std::uint32_t uid, std::uint32_t gid) = 0;
    virtual int ChangeMode(int fd, mode_t mode) = 0;
    // Replaces the process image by the file `fd` refers to; returns only when that failed.
    virtual int Execute(int fd, char* const argv[], char* const envp[]) = 0;
};

// Whom an identity change reaches: the whole process (the C library makes every thread follow), or
// the calling task alone, as a child that shares its parent's memory needs it: the library's calls
// would signal the parent's threads and take its locks.
enum class IdentityScope { Process, CallingTask };

// Takes the account's supplementary groups, group and user id, in that order, and makes sure the
// super-user is out of reach afterwards. Only async-signal-safe calls, so a forked child may use
// it. 0, or the errno that stopped it.
int TakeIdentity(const Account& account, IdentityScope scope = IdentityScope::Process);

}  // namespace qvk::platform
