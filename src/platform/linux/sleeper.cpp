#include "platform/sleeper.h"

#include <time.h>

#include <cerrno>

#include "platform/service.h"

namespace qvk::platform {

namespace {

class LinuxSleeper final : public Sleeper {
public:
    void Usleep(std::uint32_t microseconds) override {
        timespec left{static_cast<time_t>(microseconds / 1000000), static_cast<long>(microseconds % 1000000) * 1000};
        // A signal cuts the wait short; the rest is waited for.
        while (nanosleep(&left, &left) != 0 && errno == EINTR) {
        }
    }
};

}  // namespace

template <>
Sleeper& DefaultService<Sleeper>() {
    static LinuxSleeper sleeper;
    return sleeper;
}

}  // namespace qvk::platform
