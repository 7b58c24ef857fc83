// The main thread's run loop: it serves every event of the program's normal life.
#pragma once

#include <functional>

namespace qvk::platform {

class RunLoop {
public:
    virtual ~RunLoop() = default;
    // Serves events for ever.
    virtual void Run() = 0;
    // Serves events until `done` answers true or `seconds` have passed; true when done.
    virtual bool RunUntil(const std::function<bool()>& done, double seconds) = 0;
    // Runs `work` on the main thread in a later pass of the loop, in the default mode.
    virtual void PerformDeferred(std::function<void()> work) = 0;
    // From any thread: hands `work` to the main thread without waiting for it.
    virtual void PerformOnMainThread(std::function<void()> work) = 0;
};

}  // namespace qvk::platform
