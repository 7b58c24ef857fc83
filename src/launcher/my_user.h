// The user the Launcher acts for: the real user who started it, settled by the set-user-id
// hand-over at start-up. Privileged work switches to this user for its per-user steps.
#pragma once

#include <cstdint>

extern std::uint32_t MyUser;
