// Steps in the home folder of the user the program acts for, taken with that user's file-system
// identity: the kernel checks each of them as it would for the user, so a link, a swapped folder
// or a planted entry there can never lead the super-user to a place the user could not reach, and
// what is made there belongs to the user.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace qvk::platform {

// The user whose home folder the program works in; 0 is the super-user itself. Until it is set,
// the real user of the process, or for a super-user process the owner of the home folder.
void SetHomeUser(std::uint32_t uid);

// While it lives, the calling thread's file-system checks are those of the home user: that user's
// uid, gid and groups. Other threads keep their own. Nothing to switch for the super-user, or when
// the thread already has the user's file-system identity.
class AsHomeUser {
public:
    AsHomeUser();
    ~AsHomeUser();
    AsHomeUser(const AsHomeUser&) = delete;
    AsHomeUser& operator=(const AsHomeUser&) = delete;

    // False when the user's identity could not be taken (no such account, or the switch did not
    // hold): then nothing may be done in the home folder.
    bool Active() const { return active_; }

private:
    bool active_ = false;
    bool switched_ = false;
    uid_t savedUser_ = 0;
    gid_t savedGroup_ = 0;
    std::vector<gid_t> savedGroups_;
};

// Whether the entry at `path` in the home folder exists, looked at as the home user; a symbolic
// link counts as itself.
bool ExistsInHome(const std::string& path);

}  // namespace qvk::platform
