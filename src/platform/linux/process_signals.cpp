#include "platform/process_signals.h"

#include <signal.h>

#include "platform/service.h"

namespace qvk::platform {

namespace {

class PosixProcessSignals final : public ProcessSignals {
public:
    int Kill(pid_t pid, int signal) override { return kill(pid, signal); }
};

}  // namespace

template <>
ProcessSignals& DefaultService<ProcessSignals>() {
    static PosixProcessSignals signals;
    return signals;
}

}  // namespace qvk::platform
