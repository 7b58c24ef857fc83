#include "framework/filesystem/file_monitor.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "framework/base/assert.h"
#include "framework/log/logging.h"
#include "platform/run_loop.h"
#include "platform/service.h"

namespace {

constexpr const char* kSource = "Apple/../../../Framework/Library/Filesystem/Apple/FilesystemMonitor";
constexpr const char* kInit = "-[QVK_Framework_FileMonitor QVK_Framework_FileMonitor_InitForName:Events:]";

// The system's text for an error number; safe on the worker thread.
std::string ErrorText(int error) {
    char buffer[256];
    return strerror_r(error, buffer, sizeof buffer);
}

// The workers of one process. A worker is active from just before its kernel wait until it has
// handled what the wait returned. When the process ends, every worker is woken through its pipe
// and, once it is not active, stays waiting here for good, so no worker reaches an object that the
// end of the process destroys. Never destroyed itself: parked workers wait on it until the end.
class Workers {
public:
    explicit Workers(pid_t process) : process_(process) {}

    // The workers of the calling process; a forked child starts with none. The first worker of a
    // process arranges the stop at its end once the services it uses exist: an exit handler runs
    // before the destruction of every static object made before it was registered.
    static Workers& OfThisProcess() {
        Workers* seen = current_.load();
        while (!seen || seen->process_ != getpid()) {
            auto fresh = std::make_unique<Workers>(getpid());
            fresh->parent_ = seen;
            if (current_.compare_exchange_strong(seen, fresh.get())) {
                std::atexit(StopAll);
                return *fresh.release();
            }
        }
        return *seen;
    }

    // A new worker, woken at the end through `wakeup`.
    void Join(int wakeup) {
        std::unique_lock lock(mutex_);
        if (ending_) Park(lock);
        wakeups_.push_back(wakeup);
    }
    // Before the next wait; does not return once the process ends.
    void Enter() {
        std::unique_lock lock(mutex_);
        if (ending_) Park(lock);
        ++active_;
    }
    // After a wait; does not return when the process ends meanwhile.
    void Resume() {
        std::unique_lock lock(mutex_);
        if (!ending_) return;
        --active_;
        changed_.notify_all();
        Park(lock);
    }
    // Done with what the wait returned.
    void Leave() {
        std::lock_guard lock(mutex_);
        --active_;
        changed_.notify_all();
    }

private:
    [[noreturn]] void Park(std::unique_lock<std::mutex>& lock) {
        for (;;) changed_.wait(lock);
    }

    // At exit: wakes every worker and waits until none is active.
    static void StopAll() {
        Workers* workers = current_.load();
        if (!workers || workers->process_ != getpid()) return;
        std::unique_lock lock(workers->mutex_);
        workers->ending_ = true;
        const char wake = 0;
        for (int wakeup : workers->wakeups_) {
            [[maybe_unused]] ssize_t written = write(wakeup, &wake, 1);
        }
        workers->changed_.wait(lock, [workers] { return workers->active_ == 0; });
    }

    static inline std::atomic<Workers*> current_{nullptr};
    const pid_t process_;
    Workers* parent_ = nullptr;  // the forking process's, kept reachable
    std::mutex mutex_;
    std::condition_variable changed_;
    bool ending_ = false;
    int active_ = 0;
    std::vector<int> wakeups_;  // the write ends of the workers' pipes
};

}  // namespace

// A running worker holds its monitor, so only a monitor without one is ever destroyed.
QVK_Framework_FileMonitor::~QVK_Framework_FileMonitor() { CloseDescriptors(); }

bool QVK_Framework_FileMonitor::QVK_Framework_FileMonitor_InitForName(const std::string& path, std::uint32_t events) {
    QVK_Framework_Log_Internal(kInit, kSource, 127, 5, "%@", path);
    FilePath = path;
    ThreadCondition = std::make_unique<qvk::platform::ConditionLock>(0);
    queueService_ = &qvk::platform::Use<qvk::platform::KernelQueue>();
    runLoop_ = &qvk::platform::Use<qvk::platform::RunLoop>();

    int queue = queueService_->Create();
    if (queue < 0) {
        QVK_Framework_Log_Internal(kInit, kSource, 159, 2, "Unable to open kernel queue: %s", ErrorText(errno));
        CloseDescriptors();
        return false;
    }
    KernelQueue = qvk::platform::UniqueKernelQueue(*queueService_, queue);
    FileDescriptor.reset(queueService_->OpenForEvents(path));
    if (FileDescriptor.get() < 0) {
        QVK_Framework_Log_Internal(kInit, kSource, 154, 2, "Unable to open \"%@\" for monitoring: %s", path,
                                   ErrorText(errno));
        CloseDescriptors();
        return false;
    }
    int ends[2];
    if (pipe(ends) < 0) {
        QVK_Framework_Log_Internal(kInit, kSource, 149, 2, "Unable to open pipe for thread: %s", ErrorText(errno));
        CloseDescriptors();
        return false;
    }
    ThreadPipe[0].reset(ends[0]);
    ThreadPipe[1].reset(ends[1]);
    // Not handed to programs that replace this process.
    fcntl(ends[0], F_SETFD, FD_CLOEXEC);
    fcntl(ends[1], F_SETFD, FD_CLOEXEC);

    constexpr std::uint16_t kAddClear = qvk::platform::kEventAdd | qvk::platform::kEventClear;
    KernelEvents[0] = {static_cast<std::uintptr_t>(FileDescriptor.get()),
                       qvk::platform::kEventFilterVnode,
                       kAddClear,
                       events,
                       0,
                       this};
    KernelEvents[1] = {
        static_cast<std::uintptr_t>(ThreadPipe[0].get()), qvk::platform::kEventFilterRead, kAddClear, 0, 0, this};

    std::shared_ptr<QVK_Framework_FileMonitor> self = weak_from_this().lock();
    QVK_Framework_Assert(self != nullptr, "self!=nil", kInit, kSource, 140);
    // Detached, as the platform's thread start: the worker holds its monitor for as long as it runs.
    try {
        std::thread([self] { self->KernelEventThread(nullptr); }).detach();
    } catch (const std::system_error&) {
        CloseDescriptors();
        return false;
    }
    // Kept on purpose: see KillThread.
    ThreadCondition->LockWhenCondition(1);
    return true;
}

void QVK_Framework_FileMonitor::KernelEventThread(const void*) {
    constexpr const char* kFunction = "-[QVK_Framework_FileMonitor KernelEventThread:]";
    Workers& workers = Workers::OfThisProcess();
    workers.Join(ThreadPipe[1].get());
    ThreadCondition->Lock();
    ThreadCondition->UnlockWithCondition(1);
    bool terminate = false;
    while (!terminate) {
        workers.Enter();
        std::array<qvk::platform::KernelEvent, 2> returned{};
        int count = queueService_->Event(KernelQueue.get(), KernelEvents.data(), 2, returned.data(), 2, nullptr);
        workers.Resume();
        if (count < 0) {
            QVK_Framework_Log_Internal(kFunction, kSource, 114, 5, "kevent() returned an error: %s", ErrorText(errno));
            sleep(2);
        }
        for (int i = 0; i < count && !terminate; ++i) {
            const qvk::platform::KernelEvent& event = returned[i];
            if (event.flags & qvk::platform::kEventError) {
                QVK_Framework_Log_Internal(kFunction, kSource, 91, 5, "kevent() returned an error: %s",
                                           ErrorText(static_cast<int>(event.data)));
                sleep(1);
            } else if (event.ident == static_cast<std::uintptr_t>(ThreadPipe[0].get())) {
                // The byte stays in the pipe: seeing it readable is the order.
                QVK_Framework_Log_Internal(kFunction, kSource, 98, 5, "Received termination order");
                terminate = true;
            } else if (event.ident == static_cast<std::uintptr_t>(FileDescriptor.get())) {
                qvk::Data record;
                const auto* bytes = reinterpret_cast<const std::uint8_t*>(&event);
                record.bytes.assign(bytes, bytes + sizeof event);
                runLoop_->PerformOnMainThread([self = shared_from_this(), record = std::move(record)] {
                    self->QVK_Framework_FileMonitor_Triggered(&record);
                });
            }
        }
        workers.Leave();
    }
    ThreadCondition->Lock();
    ThreadCondition->UnlockWithCondition(0);
}

void QVK_Framework_FileMonitor::KillThread() {
    if (ThreadPipe[1].get() == -1) return;
    const char order = 0;
    while (write(ThreadPipe[1].get(), &order, 1) != 1) {
        QVK_Framework_Log_Internal("-[QVK_Framework_FileMonitor KillThread]", kSource, 32, 5,
                                   "Error trying to tell thread to quit: %s", ErrorText(errno));
        sleep(1);
    }
    if (ThreadCondition) {
        ThreadCondition->LockWhenCondition(0);
        ThreadCondition->Unlock();
    }
}

void QVK_Framework_FileMonitor::CloseDescriptors() {
    FileDescriptor.reset();
    KernelQueue.reset();
    ThreadPipe[0].reset();
    ThreadPipe[1].reset();
}

void QVK_Framework_FileMonitor::QVK_Framework_FileMonitor_Triggered(const qvk::Data*) {
    QVK_Framework_Log_Internal("-[QVK_Framework_FileMonitor QVK_Framework_FileMonitor_Triggered:]", kSource, 172, 5,
                               "%@", FilePath);
}
