#include "platform/process_identity.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/service.h"

namespace qvk::platform {

namespace {

// The group of a user the account database does not know: no group of anybody's.
constexpr gid_t kNoGroup = 65534;

class PosixProcessIdentity final : public ProcessIdentity {
public:
    std::uint32_t RealUserID() override { return getuid(); }
    std::uint32_t EffectiveUserID() override { return geteuid(); }

    int BecomeUser(std::uint32_t uid) override {
        // Without the super-user's rights there are no groups to give up, only the user id.
        if (geteuid() != 0) return setuid(uid);
        std::optional<Account> account;
        if (uid != 0) account = LookUpAccount(uid);
        // Never the super-user's groups for somebody else, known to the database or not.
        int error = TakeIdentity(account.value_or(Account{uid, uid == 0 ? 0 : kNoGroup, {}, {}, {}}));
        if (error != 0) {
            errno = error;
            return -1;
        }
        if (account) setenv("HOME", account->home.c_str(), 1);
        return 0;
    }

    bool StartedFromDescriptor() override {
        const auto* name = reinterpret_cast<const char*>(getauxval(AT_EXECFN));
        return name && std::strncmp(name, "/dev/fd/", 8) == 0;
    }

    int ChangeOwner(int fd, std::uint32_t uid, std::uint32_t gid) override { return fchown(fd, uid, gid); }
    int ChangeMode(int fd, mode_t mode) override { return fchmod(fd, mode); }
    int Execute(int fd, char* const argv[], char* const envp[]) override {
        return execveat(fd, "", argv, envp, AT_EMPTY_PATH);
    }
};

}  // namespace

int TakeIdentity(const Account& account, IdentityScope scope) {
    const bool process = scope == IdentityScope::Process;
    const uid_t uid = account.uid;
    const gid_t gid = account.gid;
    bool failed =
        process ? setgroups(account.groups.size(), account.groups.data()) != 0 || setgid(gid) != 0 || setuid(uid) != 0
                : syscall(SYS_setgroups, account.groups.size(), account.groups.data()) != 0 ||
                      syscall(SYS_setresgid, gid, gid, gid) != 0 || syscall(SYS_setresuid, uid, uid, uid) != 0;
    if (failed) return errno;
    if (getuid() != uid || geteuid() != uid || getgid() != gid || getegid() != gid) return EPERM;
    if (uid != 0 && (process ? setuid(0) : syscall(SYS_setuid, 0)) == 0) return EPERM;
    return 0;
}

template <>
ProcessIdentity& DefaultService<ProcessIdentity>() {
    static PosixProcessIdentity identity;
    return identity;
}

}  // namespace qvk::platform
