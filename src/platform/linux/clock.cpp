#include "platform/clock.h"

#include <time.h>

#include "platform/service.h"

namespace qvk::platform {

namespace {

class LinuxClock final : public Clock {
public:
    double Now() override {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
    }
};

}  // namespace

template <>
Clock& DefaultService<Clock>() {
    static LinuxClock clock;
    return clock;
}

}  // namespace qvk::platform
