// The one process-wide recursive lock. Until main creates it, taking it does nothing, as a message
// to a nil lock does nothing on the Mac; the loggers already run then.
#pragma once

#include <memory>
#include <mutex>

extern std::unique_ptr<std::recursive_mutex> QVK_Framework_GlobalMutex;

void QVK_Framework_CreateGlobalMutex();

class QVK_Framework_GlobalLock {
public:
    QVK_Framework_GlobalLock() : mutex_(QVK_Framework_GlobalMutex.get()) {
        if (mutex_) mutex_->lock();
    }
    ~QVK_Framework_GlobalLock() {
        if (mutex_) mutex_->unlock();
    }
    QVK_Framework_GlobalLock(const QVK_Framework_GlobalLock&) = delete;
    QVK_Framework_GlobalLock& operator=(const QVK_Framework_GlobalLock&) = delete;

private:
    std::recursive_mutex* mutex_;
};
