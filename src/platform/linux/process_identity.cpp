#include "platform/process_identity.h"

#include <sys/stat.h>
#include <unistd.h>

#include "platform/service.h"

namespace qvk::platform {

namespace {

class PosixProcessIdentity final : public ProcessIdentity {
public:
    std::uint32_t RealUserID() override { return getuid(); }
    std::uint32_t EffectiveUserID() override { return geteuid(); }
    int SetUserID(std::uint32_t uid) override { return setuid(uid); }
    int ChangeOwner(const std::string& path, std::uint32_t uid, std::uint32_t gid) override {
        return chown(path.c_str(), uid, gid);
    }
    int ChangeMode(const std::string& path, mode_t mode) override { return chmod(path.c_str(), mode); }
    int Execute(const std::string& path, char* const argv[], char* const envp[]) override {
        return execve(path.c_str(), argv, envp);
    }
};

}  // namespace

template <>
ProcessIdentity& DefaultService<ProcessIdentity>() {
    static PosixProcessIdentity identity;
    return identity;
}

}  // namespace qvk::platform
