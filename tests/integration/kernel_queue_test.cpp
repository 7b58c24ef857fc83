// The kernel event queue on inotify and epoll, and the file monitor on it, against real folders.
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "../unit/test_support.h"
#include "framework/filesystem/file_monitor.h"
#include "platform/kernel_queue.h"
#include "platform/service.h"
#include "platform/unique_fd.h"

namespace qvk::test {
namespace {

using platform::KernelEvent;
using platform::UniqueFd;

constexpr timespec kNoWait{0, 0};
constexpr timespec kSecond{1, 0};
constexpr std::uint32_t kNotes = platform::kNoteDelete | platform::kNoteRename;
constexpr std::uint16_t kAdd = platform::kEventAdd | platform::kEventClear;
using Notes = std::vector<std::uint32_t>;

KernelEvent Watch(int fd, std::uint16_t flags) {
    return {std::uintptr_t(fd), platform::kEventFilterVnode, flags, kNotes, 0, nullptr};
}

struct Queue {
    platform::KernelQueue& service = platform::Use<platform::KernelQueue>();
    platform::UniqueKernelQueue queue{service, service.Create()};
    // Applies `change` and gives the notes of the records one wait returns; a failed wait gives {0}.
    Notes Wait(const KernelEvent& change, const timespec& timeout) {
        KernelEvent out[4]{};
        int n = service.Event(queue.get(), &change, 1, out, 4, &timeout);
        Notes notes;
        for (int i = 0; i < n; ++i) {
            EXPECT_EQ(out[i].ident, change.ident);
            notes.push_back(out[i].fflags);
        }
        return n < 0 ? Notes{0} : notes;
    }
};

TEST(KernelQueue, AFolderIsFollowedThroughMovesAndItsDeletionIsSeenWhileItIsOpen) {
    TempDir dir;
    const std::string& d = dir.path();
    for (const char* name : {"/watched", "/other", "/dropped"}) ASSERT_EQ(mkdir((d + name).c_str(), 0755), 0);
    Queue q;
    UniqueFd watched(q.service.OpenForEvents(d + "/watched"));
    KernelEvent change = Watch(watched.get(), kAdd);
    EXPECT_TRUE(q.Wait(change, kNoWait).empty());
    // Two moves before the wait come back as one record, which clears the state.
    ASSERT_EQ(rename((d + "/watched").c_str(), (d + "/renamed").c_str()), 0);
    ASSERT_EQ(rename((d + "/renamed").c_str(), (d + "/other/moved").c_str()), 0);
    EXPECT_EQ(q.Wait(change, kSecond), Notes{platform::kNoteRename});
    EXPECT_TRUE(q.Wait(change, kNoWait).empty());
    // A sibling's removal is not the folder's; the folder's own removal in its new place is.
    ASSERT_EQ(mkdir((d + "/other/sibling").c_str(), 0755), 0);
    ASSERT_EQ(rmdir((d + "/other/sibling").c_str()), 0);
    EXPECT_TRUE(q.Wait(change, kNoWait).empty());
    ASSERT_EQ(rmdir((d + "/other/moved").c_str()), 0);
    EXPECT_EQ(q.Wait(change, kSecond), Notes{platform::kNoteDelete});

    // A watch taken away reports nothing more.
    UniqueFd dropped(q.service.OpenForEvents(d + "/dropped"));
    EXPECT_TRUE(q.Wait(Watch(dropped.get(), kAdd), kNoWait).empty());
    EXPECT_TRUE(q.Wait(Watch(dropped.get(), platform::kEventDelete), kNoWait).empty());
    ASSERT_EQ(rename((d + "/dropped").c_str(), (d + "/gone").c_str()), 0);
    KernelEvent out[1]{};
    EXPECT_EQ(q.service.Event(q.queue.get(), nullptr, 0, out, 1, &kNoWait), 0);
}

TEST(KernelQueue, AWaitInterruptedByASignalGoesOnWaiting) {
    // A handler without SA_RESTART, as glibc's own when it changes the ids of every thread; the
    // timer interrupts the wait for a change that never comes again and again.
    struct sigaction action {
    }, previous{};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGALRM, &action, &previous), 0);
    itimerval every{{0, 20000}, {0, 20000}}, off{};
    ASSERT_EQ(setitimer(ITIMER_REAL, &every, nullptr), 0);
    TempDir dir;
    Queue q;
    UniqueFd folder(q.service.OpenForEvents(dir.path()));
    EXPECT_EQ(q.Wait(Watch(folder.get(), kAdd), kSecond), Notes{}) << std::strerror(errno);
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &previous, nullptr);
}

TEST(FileMonitor, ACreationThatFailsLeavesNothingOpen) {
    TempDir dir;
    // No thread can start: every new thread would want more stack than there is address space.
    RunInChild([&] {
        pthread_attr_t huge;
        pthread_attr_init(&huge);
        ASSERT_EQ(pthread_attr_setstacksize(&huge, std::size_t{1} << 48), 0);
        ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
        auto open = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
        auto before = open();
        auto monitor = std::make_shared<QVK_Framework_FileMonitor>();
        EXPECT_FALSE(monitor->QVK_Framework_FileMonitor_InitForName(dir.path(), platform::kNoteRename));
        EXPECT_EQ(open(), before);
        EXPECT_EQ(monitor->QVK_Framework_FileMonitor_MonitoredHandle(), -1);
    });
}

}  // namespace
}  // namespace qvk::test
