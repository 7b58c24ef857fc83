// The kernel event queue on Linux: an epoll descriptor is the queue; an inotify descriptor inside it
// carries the vnode watches and each read registration is the watched descriptor itself in epoll.
//
// A vnode watch follows the object through its descriptor ("/proc/self/fd/N"), so a rename or a
// move into another folder is seen as IN_MOVE_SELF wherever the object goes. Linux reports no
// IN_DELETE_SELF while a descriptor holds the object open, and the watched descriptor always does;
// so the folder that holds the object is watched too, and an entry removed there (or replaced by a
// rename onto it) wakes the queue, and the object counts as deleted once its link count is 0. That
// folder is looked up again at every registration and after every rename.
#include "platform/kernel_queue.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/path.h"
#include "platform/service.h"
#include "platform/unique_fd.h"

namespace qvk::platform {

namespace {

constexpr std::uint16_t kActionFlags = kEventAdd | kEventDelete;
constexpr std::uint16_t kKnownFlags = kActionFlags | kEventClear;
constexpr std::uint32_t kKnownNotes = kNoteDelete | kNoteRename;

struct Registration {
    KernelEvent event{};  // as registered
    // Vnode: what the descriptor referred to at registration; a descriptor closed and reused for
    // something else ends the registration, as closing a descriptor does on BSD.
    dev_t device = 0;
    ino_t inode = 0;
    int selfWatch = -1;
    int parentWatch = -1;
    bool movedSinceDrain = false;
    bool deletedSinceDrain = false;
    bool deleteSeen = false;  // a deletion is reported once
    std::uint32_t pendingNotes = 0;
    // Read: epoll reported the descriptor readable, not yet returned.
    bool readable = false;
    bool endOfFile = false;
};

struct Queue {
    UniqueFd epoll;
    UniqueFd inotify;
    std::mutex mutex;  // guards what follows; not held while waiting
    std::list<Registration> registrations;
    std::map<int, int> watchUsers;  // inotify watch -> how many registrations use it
};

std::string DescriptorLink(std::uintptr_t fd) { return "/proc/self/fd/" + std::to_string(fd); }

// The path the descriptor's object has now; none when it has none.
std::optional<std::string> CurrentPath(std::uintptr_t fd) {
    std::optional<std::string> path = ReadLink(DescriptorLink(fd));
    if (!path || path->empty() || (*path)[0] != '/') return std::nullopt;
    return path;
}

bool Unlinked(const Registration& reg) {
    struct stat st {};
    return fstat(static_cast<int>(reg.event.ident), &st) == 0 && st.st_nlink == 0;
}

bool SameObject(const Registration& reg) {
    struct stat st {};
    return fstat(static_cast<int>(reg.event.ident), &st) == 0 && st.st_dev == reg.device && st.st_ino == reg.inode;
}

class LinuxKernelQueue final : public KernelQueue {
public:
    int Create() override {
        UniqueFd epoll(epoll_create1(EPOLL_CLOEXEC));
        if (epoll.get() < 0) return -1;
        UniqueFd inotify(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        if (inotify.get() < 0) return -1;
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.fd = inotify.get();
        if (epoll_ctl(epoll.get(), EPOLL_CTL_ADD, inotify.get(), &ev) < 0) return -1;
        auto queue = std::make_shared<Queue>();
        int fd = epoll.get();
        queue->epoll = std::move(epoll);
        queue->inotify = std::move(inotify);
        std::lock_guard lock(mutex_);
        queues_[fd] = std::move(queue);
        return fd;
    }

    int Close(int queue) override {
        std::shared_ptr<Queue> owned;
        {
            std::lock_guard lock(mutex_);
            auto it = queues_.find(queue);
            if (it == queues_.end()) return close(queue);
            owned = std::move(it->second);
            queues_.erase(it);
        }
        return 0;
    }

    int OpenForEvents(const std::string& path) override {
        return open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }

    int Event(int queue, const KernelEvent* changes, int changeCount, KernelEvent* events, int eventCount,
              const timespec* timeout) override {
        std::shared_ptr<Queue> q = Find(queue);
        if (!q) {
            errno = EBADF;
            return -1;
        }
        if (changeCount < 0 || eventCount < 0 || (changeCount > 0 && !changes) || (eventCount > 0 && !events)) {
            errno = EINVAL;
            return -1;
        }
        std::unique_lock lock(q->mutex);
        int errors = 0;
        for (int i = 0; i < changeCount; ++i) {
            int error = Apply(*q, changes[i]);
            if (error == 0) continue;
            if (errors == eventCount) {
                errno = error;
                return -1;
            }
            events[errors] = changes[i];
            events[errors].flags = kEventError;
            events[errors].data = error;
            ++errors;
        }
        if (errors > 0 || eventCount == 0) return errors;

        using Clock = std::chrono::steady_clock;
        auto deadline = Clock::now();
        if (timeout) deadline += std::chrono::seconds(timeout->tv_sec) + std::chrono::nanoseconds(timeout->tv_nsec);
        bool waited = false;
        for (;;) {
            int n = Collect(*q, events, eventCount);
            if (n > 0) return n;
            int ms = -1;
            if (timeout) {
                auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
                if (waited && left <= 0) return 0;
                ms = left <= 0 ? 0 : static_cast<int>(std::min<long long>(left, INT32_MAX));
            }
            epoll_event ready[8];
            lock.unlock();
            int got = epoll_wait(q->epoll.get(), ready, 8, ms);
            int saved = errno;
            lock.lock();
            waited = true;
            // An interrupted wait is resumed: glibc interrupts every thread when the process
            // changes its user ids, which must not end a wait that knows nothing of it.
            if (got < 0 && saved == EINTR) continue;
            if (got < 0) {
                errno = saved;
                return -1;
            }
            for (int i = 0; i < got; ++i) {
                if (ready[i].data.fd == q->inotify.get()) {
                    Drain(*q);
                    continue;
                }
                for (Registration& reg : q->registrations) {
                    if (reg.event.filter != kEventFilterRead ||
                        reg.event.ident != static_cast<std::uintptr_t>(ready[i].data.fd))
                        continue;
                    reg.readable = true;
                    reg.endOfFile = (ready[i].events & EPOLLHUP) != 0;
                }
            }
        }
    }

private:
    std::shared_ptr<Queue> Find(int queue) {
        std::lock_guard lock(mutex_);
        auto it = queues_.find(queue);
        return it == queues_.end() ? nullptr : it->second;
    }

    // 0, or the error number of a change that could not be applied.
    int Apply(Queue& q, const KernelEvent& change) {
        if (change.filter != kEventFilterVnode && change.filter != kEventFilterRead) return EINVAL;
        if ((change.flags & ~kKnownFlags) != 0 || (change.flags & kActionFlags) == kActionFlags) return EINVAL;
        if (change.filter == kEventFilterVnode && (change.fflags & ~kKnownNotes) != 0) return EINVAL;
        auto it = q.registrations.begin();
        while (it != q.registrations.end() && !(it->event.ident == change.ident && it->event.filter == change.filter))
            ++it;
        if (change.flags & kEventDelete) {
            if (it == q.registrations.end()) return ENOENT;
            Remove(q, it);
            return 0;
        }
        struct stat st {};
        if (change.ident > INT32_MAX || fstat(static_cast<int>(change.ident), &st) < 0) return EBADF;
        if (it != q.registrations.end() && change.filter == kEventFilterVnode &&
            (st.st_dev != it->device || st.st_ino != it->inode)) {
            // The descriptor now names another object: start afresh.
            Remove(q, it);
            it = q.registrations.end();
        }
        bool fresh = it == q.registrations.end();
        if (fresh) {
            if (!(change.flags & kEventAdd)) return ENOENT;
            it = q.registrations.emplace(q.registrations.end());
            it->device = st.st_dev;
            it->inode = st.st_ino;
        }
        std::uint16_t oldFlags = it->event.flags;
        it->event = change;
        int error = change.filter == kEventFilterVnode ? WatchVnode(q, *it) : WatchRead(q, *it, fresh, oldFlags);
        if (error != 0 && fresh) Remove(q, it);
        return error;
    }

    int WatchVnode(Queue& q, Registration& reg) {
        std::uint32_t mask = IN_MASK_ADD | IN_DELETE_SELF;
        if (reg.event.fflags & kNoteRename) mask |= IN_MOVE_SELF;
        int wd = inotify_add_watch(q.inotify.get(), DescriptorLink(reg.event.ident).c_str(), mask);
        if (wd < 0) return errno;
        SwapWatch(q, reg.selfWatch, wd);
        RefreshParentWatch(q, reg);
        return 0;
    }

    int WatchRead(Queue& q, Registration& reg, bool fresh, std::uint16_t oldFlags) {
        epoll_event ev{};
        ev.events = EPOLLIN | ((reg.event.flags & kEventClear) ? std::uint32_t{EPOLLET} : 0u);
        ev.data.fd = static_cast<int>(reg.event.ident);
        if (fresh) return epoll_ctl(q.epoll.get(), EPOLL_CTL_ADD, ev.data.fd, &ev) < 0 ? errno : 0;
        if ((oldFlags & kEventClear) == (reg.event.flags & kEventClear)) return 0;
        return epoll_ctl(q.epoll.get(), EPOLL_CTL_MOD, ev.data.fd, &ev) < 0 ? errno : 0;
    }

    // Watches the folder that holds the object now, for the deletion (needed only for that note).
    // An object that has no name any more keeps the watch it had: its deletion may still be queued.
    void RefreshParentWatch(Queue& q, Registration& reg) {
        if (!(reg.event.fflags & kNoteDelete)) return SwapWatch(q, reg.parentWatch, -1);
        if (Unlinked(reg)) return;
        std::optional<std::string> path = CurrentPath(reg.event.ident);
        if (!path) return;
        SwapWatch(q, reg.parentWatch,
                  inotify_add_watch(q.inotify.get(), ParentFolder(*path).c_str(),
                                    IN_MASK_ADD | IN_ONLYDIR | IN_DELETE | IN_MOVED_TO));
    }

    // Makes `slot` use `wd` (or none for -1), removing a watch nobody uses any more.
    void SwapWatch(Queue& q, int& slot, int wd) {
        if (wd >= 0) ++q.watchUsers[wd];
        if (slot >= 0) {
            auto it = q.watchUsers.find(slot);
            if (it != q.watchUsers.end() && --it->second == 0) {
                inotify_rm_watch(q.inotify.get(), slot);
                q.watchUsers.erase(it);
            }
        }
        slot = wd;
    }

    void Remove(Queue& q, std::list<Registration>::iterator it) {
        SwapWatch(q, it->selfWatch, -1);
        SwapWatch(q, it->parentWatch, -1);
        if (it->event.filter == kEventFilterRead)
            epoll_ctl(q.epoll.get(), EPOLL_CTL_DEL, static_cast<int>(it->event.ident), nullptr);
        q.registrations.erase(it);
    }

    // Reads every queued inotify event and notes what it means for the vnode registrations. Any
    // event may be the one that came with a deletion, so after them every watched object that lost
    // its last name counts as deleted (once).
    void Drain(Queue& q) {
        alignas(inotify_event) char buffer[4096];
        bool any = false;
        for (;;) {
            ssize_t n = read(q.inotify.get(), buffer, sizeof buffer);
            if (n <= 0) break;
            any = true;
            for (char* p = buffer; p < buffer + n;) {
                const auto* ev = reinterpret_cast<const inotify_event*>(p);
                p += sizeof(inotify_event) + ev->len;
                if (ev->mask & IN_IGNORED) {
                    // The kernel dropped the watch (its object is gone): nobody uses it any more.
                    q.watchUsers.erase(ev->wd);
                    for (Registration& reg : q.registrations) {
                        if (reg.selfWatch == ev->wd) reg.selfWatch = -1;
                        if (reg.parentWatch == ev->wd) reg.parentWatch = -1;
                    }
                    continue;
                }
                for (Registration& reg : q.registrations) {
                    if (reg.event.filter != kEventFilterVnode || reg.selfWatch != ev->wd) continue;
                    if (ev->mask & IN_MOVE_SELF) reg.movedSinceDrain = true;
                    if (ev->mask & IN_DELETE_SELF) reg.deletedSinceDrain = true;
                }
            }
        }
        if (!any) return;
        for (Registration& reg : q.registrations) {
            if (reg.event.filter != kEventFilterVnode) continue;
            bool moved = std::exchange(reg.movedSinceDrain, false);
            bool deleted = std::exchange(reg.deletedSinceDrain, false) || Unlinked(reg);
            if (!SameObject(reg)) continue;
            if (moved && (reg.event.fflags & kNoteRename)) reg.pendingNotes |= kNoteRename;
            if (deleted && !reg.deleteSeen && (reg.event.fflags & kNoteDelete)) {
                reg.pendingNotes |= kNoteDelete;
                reg.deleteSeen = true;
            }
            if (moved) RefreshParentWatch(q, reg);
        }
    }

    // Hands out pending events in registration order.
    int Collect(Queue& q, KernelEvent* events, int room) {
        int n = 0;
        for (Registration& reg : q.registrations) {
            if (n == room) break;
            KernelEvent out = reg.event;
            out.flags = static_cast<std::uint16_t>(reg.event.flags & ~kActionFlags);
            if (reg.event.filter == kEventFilterVnode) {
                if (reg.pendingNotes == 0) continue;
                out.fflags = reg.pendingNotes;
                out.data = 0;
                if (reg.event.flags & kEventClear) reg.pendingNotes = 0;
            } else {
                if (!reg.readable) continue;
                reg.readable = false;
                int available = 0;
                if (ioctl(static_cast<int>(reg.event.ident), FIONREAD, &available) < 0) available = 0;
                if (available == 0 && !reg.endOfFile) continue;
                out.fflags = 0;
                out.data = available;
                if (reg.endOfFile) out.flags |= kEventEndOfFile;
            }
            events[n++] = out;
        }
        return n;
    }

    std::mutex mutex_;
    std::map<int, std::shared_ptr<Queue>> queues_;
};

}  // namespace

template <>
KernelQueue& DefaultService<KernelQueue>() {
    static LinuxKernelQueue queue;
    return queue;
}

}  // namespace qvk::platform
