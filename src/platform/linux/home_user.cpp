#include "platform/home_user.h"

#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "platform/account.h"
#include "platform/home.h"
#include "platform/service.h"

namespace qvk::platform {

namespace {

#ifdef SYS_setgroups32
constexpr long kSetGroups = SYS_setgroups32;
#else
constexpr long kSetGroups = SYS_setgroups;
#endif

struct HomeUserState {
    std::mutex lock;
    std::optional<std::uint32_t> uid;
    // Null when the database has no account for the uid.
    std::shared_ptr<const Account> account;
};

HomeUserState& State() {
    static HomeUserState state;
    return state;
}

void Settle(HomeUserState& state, std::uint32_t uid) {
    state.uid = uid;
    std::optional<Account> found = uid == 0 ? std::nullopt : LookUpAccount(uid);
    state.account = found ? std::make_shared<const Account>(std::move(*found)) : nullptr;
}

// Until told: the real user. A super-user process not told yet works in a home folder as the
// folder's owner, which never reaches further than the super-user would.
std::uint32_t UntoldHomeUser() {
    uid_t real = getuid();
    if (real != 0) return real;
    struct stat st {};
    return stat(Use<Home>().HomeDirectory().c_str(), &st) == 0 ? st.st_uid : 0;
}

std::pair<std::uint32_t, std::shared_ptr<const Account>> HomeUser() {
    HomeUserState& state = State();
    std::lock_guard guard(state.lock);
    if (!state.uid) Settle(state, UntoldHomeUser());
    return {*state.uid, state.account};
}

// The raw call changes the calling thread alone; glibc's setgroups would change every thread.
bool SetThreadGroups(const std::vector<gid_t>& groups) {
    return syscall(kSetGroups, groups.size(), groups.data()) == 0;
}

uid_t CurrentFileSystemUser() { return static_cast<uid_t>(setfsuid(static_cast<uid_t>(-1))); }
gid_t CurrentFileSystemGroup() { return static_cast<gid_t>(setfsgid(static_cast<gid_t>(-1))); }

}  // namespace

void SetHomeUser(std::uint32_t uid) {
    HomeUserState& state = State();
    std::lock_guard guard(state.lock);
    Settle(state, uid);
}

AsHomeUser::AsHomeUser() {
    auto [uid, account] = HomeUser();
    if (uid == 0) {
        active_ = true;
        return;
    }
    if (!account) return;
    savedUser_ = CurrentFileSystemUser();
    savedGroup_ = CurrentFileSystemGroup();
    if (savedUser_ == account->uid) {
        active_ = true;
        return;
    }
    int count = getgroups(0, nullptr);
    if (count < 0) return;
    savedGroups_.resize(static_cast<std::size_t>(count));
    if (getgroups(count, savedGroups_.data()) != count || !SetThreadGroups(account->groups)) return;
    switched_ = true;
    // setfsuid and setfsgid report no failure: whether they held is read back.
    setfsgid(account->gid);
    setfsuid(account->uid);
    active_ = CurrentFileSystemUser() == account->uid && CurrentFileSystemGroup() == account->gid;
}

AsHomeUser::~AsHomeUser() {
    if (!switched_) return;
    // The super-user's file-system capabilities come back with its uid, before the rest is restored.
    setfsuid(savedUser_);
    setfsgid(savedGroup_);
    SetThreadGroups(savedGroups_);
}

bool ExistsInHome(const std::string& path) {
    AsHomeUser asUser;
    struct stat st {};
    return asUser.Active() && fstatat(AT_FDCWD, path.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
}

}  // namespace qvk::platform
