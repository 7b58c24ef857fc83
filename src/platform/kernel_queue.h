// The kernel event queue: a descriptor on which a thread registers interest in events of other
// descriptors (a file-system object being deleted or renamed, a descriptor becoming readable) and
// waits for them. Shaped after the BSD kqueue/kevent pair; records have the BSD layout.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <utility>

namespace qvk::platform {

// One change or event, laid out as the BSD `struct kevent`.
struct KernelEvent {
    std::uintptr_t ident;  // the descriptor
    std::int16_t filter;
    std::uint16_t flags;
    std::uint32_t fflags;  // filter-specific flags: the vnode notes
    std::intptr_t data;    // filter-specific data; the error number of an error record
    void* udata;           // handed back unchanged
};
static_assert(sizeof(void*) != 8 || sizeof(KernelEvent) == 32);
static_assert(sizeof(void*) != 4 || sizeof(KernelEvent) == 20);

// Filters.
inline constexpr std::int16_t kEventFilterRead = -1;   // EVFILT_READ: bytes to read; data = how many
inline constexpr std::int16_t kEventFilterVnode = -4;  // EVFILT_VNODE: the object changed; fflags = notes

// Flags of a change, and of a returned event.
inline constexpr std::uint16_t kEventAdd = 0x1;           // EV_ADD: register (again)
inline constexpr std::uint16_t kEventDelete = 0x2;        // EV_DELETE: unregister
inline constexpr std::uint16_t kEventClear = 0x20;        // EV_CLEAR: the state is reset once returned
inline constexpr std::uint16_t kEventError = 0x4000;      // EV_ERROR: a change failed; data = errno
inline constexpr std::uint16_t kEventEndOfFile = 0x8000;  // EV_EOF: the writing side is gone

// Vnode notes.
inline constexpr std::uint32_t kNoteDelete = 0x1;   // NOTE_DELETE: the object was removed
inline constexpr std::uint32_t kNoteRename = 0x20;  // NOTE_RENAME: the object got another name or folder

class KernelQueue {
public:
    virtual ~KernelQueue() = default;
    // kqueue: a new queue's descriptor, or -1 with errno set.
    virtual int Create() = 0;
    // kevent: applies the changes in order, then waits (for ever when `timeout` is null) until at
    // least one registered event is pending and returns up to `eventCount` of them, or 0 when the
    // time ran out. A change that fails becomes an error record in `events` (and the call then
    // returns at once with the error records); without room for it the call fails. -1 with errno
    // set on failure. Registering again what is registered only updates it.
    virtual int Event(int queue, const KernelEvent* changes, int changeCount, KernelEvent* events, int eventCount,
                      const timespec* timeout) = 0;
    // close of a queue's descriptor: the queue and its registrations end.
    virtual int Close(int queue) = 0;
    // open(path, O_EVTONLY): a descriptor that serves only to watch the object, -1 with errno set.
    virtual int OpenForEvents(const std::string& path) = 0;
};

// Owns a queue's descriptor and closes it through the service that made it.
class UniqueKernelQueue {
public:
    UniqueKernelQueue() = default;
    UniqueKernelQueue(KernelQueue& service, int queue) : service_(&service), queue_(queue) {}
    ~UniqueKernelQueue() { reset(); }
    UniqueKernelQueue(UniqueKernelQueue&& other) noexcept
        : service_(other.service_), queue_(std::exchange(other.queue_, -1)) {}
    UniqueKernelQueue& operator=(UniqueKernelQueue&& other) noexcept {
        if (this != &other) {
            reset();
            service_ = other.service_;
            queue_ = std::exchange(other.queue_, -1);
        }
        return *this;
    }

    int get() const { return queue_; }
    void reset() {
        if (queue_ >= 0) service_->Close(queue_);
        queue_ = -1;
    }

private:
    KernelQueue* service_ = nullptr;
    int queue_ = -1;
};

}  // namespace qvk::platform
