// The kernel event queue's Linux implementation against real folders, inotify and pipes.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include "../unit/test_support.h"
#include "platform/kernel_queue.h"
#include "platform/service.h"
#include "platform/unique_fd.h"

namespace qvk::test {
namespace {

using platform::KernelEvent;
using platform::KernelQueue;
using platform::UniqueFd;
using platform::UniqueKernelQueue;

constexpr timespec kNoWait{0, 0};
constexpr timespec kSecond{1, 0};

class KernelQueueTest : public ::testing::Test {
protected:
    void SetUp() override {
        queue_ = UniqueKernelQueue(service_, service_.Create());
        ASSERT_GE(queue_.get(), 0) << std::strerror(errno);
    }
    // Registers `change` (again) and returns what one wait gives.
    std::vector<KernelEvent> Wait(const KernelEvent& change, const timespec& timeout) {
        KernelEvent out[4]{};
        int n = service_.Event(queue_.get(), &change, 1, out, 4, &timeout);
        EXPECT_GE(n, 0) << std::strerror(errno);
        return std::vector<KernelEvent>(out, out + std::max(n, 0));
    }
    std::string Folder(const std::string& name) {
        std::string path = dir_.path() + "/" + name;
        EXPECT_EQ(mkdir(path.c_str(), 0755), 0) << path;
        return path;
    }

    KernelQueue& service_ = platform::Use<KernelQueue>();
    UniqueKernelQueue queue_;
    TempDir dir_;
    int tag_ = 0;
};

TEST_F(KernelQueueTest, AFolderIsFollowedThroughMovesAndItsDeletionIsSeenWhileItIsOpen) {
    std::string watched = Folder("watched");
    std::string other = Folder("other");
    UniqueFd fd(service_.OpenForEvents(watched));
    ASSERT_GE(fd.get(), 0);
    const KernelEvent change{static_cast<std::uintptr_t>(fd.get()),
                             platform::kEventFilterVnode,
                             platform::kEventAdd | platform::kEventClear,
                             platform::kNoteDelete | platform::kNoteRename,
                             0,
                             &tag_};
    EXPECT_TRUE(Wait(change, kNoWait).empty());

    // Two moves before the wait come back as one record.
    ASSERT_EQ(rename(watched.c_str(), (dir_.path() + "/renamed").c_str()), 0);
    ASSERT_EQ(rename((dir_.path() + "/renamed").c_str(), (other + "/moved").c_str()), 0);
    auto events = Wait(change, kSecond);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].ident, change.ident);
    EXPECT_EQ(events[0].filter, platform::kEventFilterVnode);
    EXPECT_EQ(events[0].flags, platform::kEventClear);
    EXPECT_EQ(events[0].fflags, platform::kNoteRename);
    EXPECT_EQ(events[0].data, 0);
    EXPECT_EQ(events[0].udata, &tag_);
    EXPECT_TRUE(Wait(change, kNoWait).empty()) << "returned once, the state is cleared";

    // A sibling's removal is not the folder's; the folder's own removal in its new place is.
    Folder("other/sibling");
    ASSERT_EQ(rmdir((other + "/sibling").c_str()), 0);
    EXPECT_TRUE(Wait(change, kNoWait).empty());
    ASSERT_EQ(rmdir((other + "/moved").c_str()), 0);
    events = Wait(change, kSecond);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].fflags, platform::kNoteDelete);
}

TEST_F(KernelQueueTest, AFolderReplacedByARenameOntoItIsDeleted) {
    std::string watched = Folder("watched");
    std::string replacement = Folder("replacement");
    UniqueFd fd(service_.OpenForEvents(watched));
    const KernelEvent change{static_cast<std::uintptr_t>(fd.get()),
                             platform::kEventFilterVnode,
                             platform::kEventAdd | platform::kEventClear,
                             platform::kNoteDelete,
                             0,
                             nullptr};
    EXPECT_TRUE(Wait(change, kNoWait).empty());
    ASSERT_EQ(rename(replacement.c_str(), watched.c_str()), 0);
    auto events = Wait(change, kSecond);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].fflags, platform::kNoteDelete);
}

TEST_F(KernelQueueTest, APipeIsReportedOncePerArrivalWithTheBytesWaiting) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    UniqueFd readEnd(ends[0]), writeEnd(ends[1]);
    const KernelEvent change{static_cast<std::uintptr_t>(ends[0]),
                             platform::kEventFilterRead,
                             platform::kEventAdd | platform::kEventClear,
                             0,
                             0,
                             &tag_};
    EXPECT_TRUE(Wait(change, kNoWait).empty());
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    auto events = Wait(change, kSecond);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].ident, change.ident);
    EXPECT_EQ(events[0].filter, platform::kEventFilterRead);
    EXPECT_EQ(events[0].data, 1);
    EXPECT_EQ(events[0].udata, &tag_);
    // The unread byte alone does not come back; a second one does, with both counted.
    EXPECT_TRUE(Wait(change, kNoWait).empty());
    ASSERT_EQ(write(ends[1], "y", 1), 1);
    events = Wait(change, kSecond);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].data, 2);
}

TEST_F(KernelQueueTest, AWaitInterruptedByASignalGoesOnWaiting) {
    // A handler without SA_RESTART, as glibc's own when it changes the ids of every thread.
    struct sigaction action {
    }, previous{};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    UniqueFd readEnd(ends[0]), writeEnd(ends[1]);
    const KernelEvent change{static_cast<std::uintptr_t>(ends[0]),
                             platform::kEventFilterRead,
                             platform::kEventAdd | platform::kEventClear,
                             0,
                             0,
                             nullptr};
    std::atomic<int> result{-2};
    std::thread waiter([&] {
        KernelEvent out[2]{};
        result = service_.Event(queue_.get(), &change, 1, out, 2, nullptr);
    });
    for (int i = 0; i < 20; ++i) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        usleep(5000);
    }
    EXPECT_EQ(result, -2) << "the wait ended early: " << std::strerror(errno);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    waiter.join();
    EXPECT_EQ(result, 1);
    sigaction(SIGUSR1, &previous, nullptr);
}

TEST_F(KernelQueueTest, FailedChangesBecomeErrorRecordsOrFailTheCallWithoutRoom) {
    int closed = open("/", O_RDONLY);
    close(closed);
    const KernelEvent badDescriptor{static_cast<std::uintptr_t>(closed),
                                    platform::kEventFilterVnode,
                                    platform::kEventAdd,
                                    platform::kNoteDelete,
                                    0,
                                    &tag_};
    const KernelEvent unknownFilter{0, -7, platform::kEventAdd, 0, 0, nullptr};
    const KernelEvent notRegistered{0, platform::kEventFilterRead, platform::kEventDelete, 0, 0, nullptr};
    const KernelEvent changes[] = {badDescriptor, unknownFilter, notRegistered};
    KernelEvent out[3]{};
    // Errors come back at once, even with no time-out.
    ASSERT_EQ(service_.Event(queue_.get(), changes, 3, out, 3, nullptr), 3);
    EXPECT_EQ(out[0].flags, platform::kEventError);
    EXPECT_EQ(out[0].data, EBADF);
    EXPECT_EQ(out[0].udata, &tag_);
    EXPECT_EQ(out[1].data, EINVAL);
    EXPECT_EQ(out[2].data, ENOENT);

    errno = 0;
    EXPECT_EQ(service_.Event(queue_.get(), changes, 1, out, 0, nullptr), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(service_.OpenForEvents(dir_.path() + "/missing"), -1);
    EXPECT_EQ(errno, ENOENT);
}

}  // namespace
}  // namespace qvk::test
