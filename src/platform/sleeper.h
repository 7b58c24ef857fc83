// Waiting, as usleep does. A test puts a recorder in its place, so that nothing waits for real.
#pragma once

#include <cstdint>

namespace qvk::platform {

class Sleeper {
public:
    virtual ~Sleeper() = default;
    // Returns after at least `microseconds`.
    virtual void Usleep(std::uint32_t microseconds) = 0;
};

}  // namespace qvk::platform
