#include "platform/condition_lock.h"

namespace qvk::platform {

int ConditionLock::Condition() {
    std::lock_guard guard(mutex_);
    return condition_;
}

void ConditionLock::Lock() {
    std::unique_lock guard(mutex_);
    changed_.wait(guard, [this] { return !held_; });
    held_ = true;
}

void ConditionLock::LockWhenCondition(int condition) {
    std::unique_lock guard(mutex_);
    changed_.wait(guard, [this, condition] { return !held_ && condition_ == condition; });
    held_ = true;
}

void ConditionLock::Unlock() {
    {
        std::lock_guard guard(mutex_);
        held_ = false;
    }
    changed_.notify_all();
}

void ConditionLock::UnlockWithCondition(int condition) {
    {
        std::lock_guard guard(mutex_);
        held_ = false;
        condition_ = condition;
    }
    changed_.notify_all();
}

}  // namespace qvk::platform
