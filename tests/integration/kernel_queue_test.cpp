// The kernel event queue on inotify and epoll, and the file monitor on it, against real folders.
#include <pthread.h>
#include <signal.h>
#include <sys/time.h>

#include <cerrno>

#include "../unit/test_support.h"
#include "framework/filesystem/file_monitor.h"
#include "platform/kernel_queue.h"
#include "platform/unique_fd.h"

namespace qvk::test {
namespace {

using Notes = std::vector<std::uint32_t>;
constexpr timespec kNoWait{0, 0}, kSecond{1, 0};
constexpr std::uint16_t kAdd = platform::kEventAdd | platform::kEventClear;
constexpr std::uint32_t kNotes = platform::kNoteDelete | platform::kNoteRename;

TEST(KernelQueue, AFolderIsFollowedThroughMovesAndItsDeletionIsSeenWhileItIsOpenAndASignalDoesNotEndAWait) {
    TempDir dir;
    const std::string& d = dir.path();
    ASSERT_EQ(mkdir((d + "/watched").c_str(), 0755) | mkdir((d + "/other").c_str(), 0755), 0);
    auto& service = platform::Use<platform::KernelQueue>();
    platform::UniqueKernelQueue queue{service, service.Create()};
    platform::UniqueFd watched(service.OpenForEvents(d + "/watched"));
    const platform::KernelEvent change{std::uintptr_t(watched.get()), platform::kEventFilterVnode, kAdd, kNotes, 0, {}};
    // Registers the folder (again, which only updates it), then gives the notes of the records one
    // wait returns; a failed wait gives {0}.
    auto wait = [&](const timespec& timeout) {
        platform::KernelEvent out[4]{};
        int n = service.Event(queue.get(), &change, 1, out, 4, &timeout);
        Notes notes;
        for (int i = 0; i < n; ++i) notes.push_back(out[i].ident == change.ident ? out[i].fflags : 0);
        return n < 0 ? Notes{0} : notes;
    };
    EXPECT_EQ(wait(kNoWait), Notes{});
    // Two moves before the wait come back as one record, there without waiting, which clears the state.
    ASSERT_EQ(rename((d + "/watched").c_str(), (d + "/renamed").c_str()), 0);
    ASSERT_EQ(rename((d + "/renamed").c_str(), (d + "/other/moved").c_str()), 0);
    EXPECT_EQ(wait(kNoWait), Notes{platform::kNoteRename});
    EXPECT_EQ(wait(kNoWait), Notes{});
    // A sibling's removal is not the folder's. A signal's handler (as glibc's own when it changes the
    // ids of every thread) interrupts the wait again and again, whatever its flags: it goes on to its end.
    ASSERT_EQ(mkdir((d + "/other/sibling").c_str(), 0755), 0);
    ASSERT_EQ(rmdir((d + "/other/sibling").c_str()), 0);
    auto previous = signal(SIGALRM, [](int) {});
    itimerval every{{0, 20000}, {0, 20000}}, off{};
    ASSERT_EQ(setitimer(ITIMER_REAL, &every, nullptr), 0);
    EXPECT_EQ(wait(kSecond), Notes{}) << std::strerror(errno);
    setitimer(ITIMER_REAL, &off, nullptr);
    signal(SIGALRM, previous);
    // The folder's own removal in its new place is.
    ASSERT_EQ(rmdir((d + "/other/moved").c_str()), 0);
    EXPECT_EQ(wait(kSecond), Notes{platform::kNoteDelete});
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

TEST(FileMonitor, AProcessWhoseWatchEndedExits) {
    TempDir dir;
    RunInChild([&] {
        auto monitor = std::make_shared<QVK_Framework_FileMonitor>();
        ASSERT_TRUE(monitor->QVK_Framework_FileMonitor_InitForName(dir.path(), kNotes));
        // The stopper waits for ever once the worker took its order and left its loop.
        std::thread([monitor] { monitor->KillThread(); }).detach();
        usleep(200 * 1000);
        // A hang at exit ends the child by the alarm, which fails the test.
        alarm(60);
        std::exit(0);
    });
}

}  // namespace
}  // namespace qvk::test
