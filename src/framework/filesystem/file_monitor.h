// Watches one file-system object for being deleted or moved (another name or another folder) and
// reports every such change to the main thread. A worker thread waits on a kernel event queue and
// hands each change over without waiting; subclasses react in QVK_Framework_FileMonitor_Triggered.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/condition_lock.h"
#include "platform/kernel_queue.h"
#include "platform/unique_fd.h"
#include "platform/value.h"

namespace qvk::platform {
class RunLoop;
}

class QVK_Framework_FileMonitor : public std::enable_shared_from_this<QVK_Framework_FileMonitor> {
public:
    // Create monitors with std::make_shared: a running worker keeps its monitor alive.
    QVK_Framework_FileMonitor() = default;
    // Closes the descriptors. A started monitor is never destroyed: its worker holds it.
    virtual ~QVK_Framework_FileMonitor();
    QVK_Framework_FileMonitor(const QVK_Framework_FileMonitor&) = delete;
    QVK_Framework_FileMonitor& operator=(const QVK_Framework_FileMonitor&) = delete;

    // Opens `path` to watch it for the vnode notes in `events` and starts the worker; returns once
    // the worker runs. False when the queue, the path or the pipe could not be opened (logged);
    // whatever was opened is closed again and no thread runs. False as well when no thread can be
    // started.
    bool QVK_Framework_FileMonitor_InitForName(const std::string& path, std::uint32_t events);
    // The descriptor open on the watched object, wherever it went; -1 until opened.
    int QVK_Framework_FileMonitor_MonitoredHandle() const { return FileDescriptor.get(); }
    // One change, on the main thread: a copy of the kernel's event record. The base logs the path.
    virtual void QVK_Framework_FileMonitor_Triggered(const qvk::Data* event);
    // Orders the worker to quit and waits until it left its loop; nothing when none was started.
    // Creation keeps the start handshake's lock, so on a started monitor this never returns:
    // nothing in the program stops a started monitor.
    void KillThread();

private:
    void KernelEventThread(const void* argument);
    void CloseDescriptors();

    std::string FilePath;
    std::unique_ptr<qvk::platform::ConditionLock> ThreadCondition;  // 0: no worker running, 1: running
    qvk::platform::UniqueKernelQueue KernelQueue;
    qvk::platform::UniqueFd FileDescriptor;
    std::array<qvk::platform::UniqueFd, 2> ThreadPipe;         // [0] the worker watches, [1] orders it to quit
    std::array<qvk::platform::KernelEvent, 2> KernelEvents{};  // [0] the object, [1] the pipe
    // The services the worker uses, fixed at creation.
    qvk::platform::KernelQueue* queueService_ = nullptr;
    qvk::platform::RunLoop* runLoop_ = nullptr;
};
