// A user's account as the password and group databases give it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qvk::platform {

struct Account {
    uid_t uid = 0;
    gid_t gid = 0;
    std::string name;
    std::string home;
    // Every group the user belongs to, the primary one included.
    std::vector<gid_t> groups;
};

// None when the database has no entry for `uid`.
std::optional<Account> LookUpAccount(std::uint32_t uid);

// Whether the account belongs to a group that administers the machine ("admin", "sudo", "wheel").
bool IsAdministrator(const Account& account);

}  // namespace qvk::platform
