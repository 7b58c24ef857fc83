// A lock that carries a number, the condition, as Foundation's condition lock does: a thread can
// wait to take the lock until the condition has a given value, and sets the value as it lets go.
// Any thread may release the lock, whichever took it.
#pragma once

#include <condition_variable>
#include <mutex>

namespace qvk::platform {

class ConditionLock {
public:
    explicit ConditionLock(int condition) : condition_(condition) {}
    ConditionLock(const ConditionLock&) = delete;
    ConditionLock& operator=(const ConditionLock&) = delete;

    int Condition();
    void Lock();
    // Waits until the lock is free and the condition equals `condition`, then takes it.
    void LockWhenCondition(int condition);
    void Unlock();
    void UnlockWithCondition(int condition);

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool held_ = false;
    int condition_;
};

}  // namespace qvk::platform
