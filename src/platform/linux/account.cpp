#include "platform/account.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace qvk::platform {

namespace {

std::vector<char> EntryBuffer(int which) {
    long size = sysconf(which);
    return std::vector<char>(size > 0 ? static_cast<std::size_t>(size) : 16384);
}

}  // namespace

std::optional<Account> LookUpAccount(std::uint32_t uid) {
    std::vector<char> buffer = EntryBuffer(_SC_GETPW_R_SIZE_MAX);
    passwd entry{};
    passwd* found = nullptr;
    while (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) == ERANGE && buffer.size() < (1u << 20))
        buffer.resize(buffer.size() * 2);
    if (!found) return std::nullopt;
    Account account{
        found->pw_uid, found->pw_gid, found->pw_name, found->pw_dir && found->pw_dir[0] ? found->pw_dir : "/", {}};
    int count = 32;
    for (;;) {
        account.groups.resize(static_cast<std::size_t>(count));
        int wanted = count;
        if (getgrouplist(account.name.c_str(), account.gid, account.groups.data(), &wanted) >= 0) {
            account.groups.resize(static_cast<std::size_t>(wanted));
            return account;
        }
        if (wanted <= count || wanted > 65536) return std::nullopt;
        count = wanted;
    }
}

bool IsAdministrator(const Account& account) {
    for (const char* name : {"admin", "sudo", "wheel"}) {
        std::vector<char> buffer = EntryBuffer(_SC_GETGR_R_SIZE_MAX);
        group entry{};
        group* found = nullptr;
        while (getgrnam_r(name, &entry, buffer.data(), buffer.size(), &found) == ERANGE && buffer.size() < (1u << 20))
            buffer.resize(buffer.size() * 2);
        if (!found) continue;
        if (std::find(account.groups.begin(), account.groups.end(), found->gr_gid) != account.groups.end()) return true;
        for (char** member = found->gr_mem; member && *member; ++member)
            if (account.name == *member) return true;
    }
    return false;
}

}  // namespace qvk::platform
