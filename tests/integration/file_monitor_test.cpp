// The file monitor on real folders: inotify underneath, the GLib run loop as the main thread's.
#include <dirent.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>

#include "../unit/test_support.h"
#include "framework/filesystem/file_monitor.h"
#include "platform/format.h"
#include "platform/run_loop.h"

namespace qvk::test {
namespace {

using platform::KernelEvent;

constexpr std::uint32_t kDeleteAndRename = platform::kNoteDelete | platform::kNoteRename;

// Keeps what it is handed. A started monitor lives as long as its worker, that is, for the rest of
// the process, so everything it records lives in it.
class RecordingMonitor : public QVK_Framework_FileMonitor {
public:
    void QVK_Framework_FileMonitor_Triggered(const qvk::Data* event) override {
        ASSERT_NE(event, nullptr);
        records.push_back(event->bytes);
        threads.push_back(std::this_thread::get_id());
    }
    std::vector<std::vector<std::uint8_t>> records;
    std::vector<std::thread::id> threads;
};

bool Serve(const std::function<bool()>& done, double seconds) {
    return platform::Use<platform::RunLoop>().RunUntil(done, seconds);
}

// The worker registers its watch only once it runs, after creation returned; a change before that
// goes unseen. Waits until one inotify descriptor of this process watches both the folder and the
// folder that holds it.
bool WaitUntilWatched(const std::string& path) {
    auto inode = [](const std::string& p) {
        struct stat st {};
        return stat(p.c_str(), &st) == 0 ? Format("ino:%lx ", static_cast<unsigned long>(st.st_ino)) : std::string();
    };
    std::string own = inode(path), parent = inode(path.substr(0, path.rfind('/')));
    for (int attempt = 0; attempt < 500; ++attempt) {
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
            std::string info = ReadFile(entry.path().string());
            if (info.find(own) != std::string::npos && info.find(parent) != std::string::npos) return true;
        }
        usleep(10000);
    }
    return false;
}

int OpenDescriptors() {
    int n = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (readdir(dir)) ++n;
        closedir(dir);
    }
    return n;
}

// A thread-safe log capture: the worker logs from its own thread.
class SharedLog : public QVK_Framework_CustomLoggerClass {
public:
    SharedLog() {
        QVK_Framework_RegisterClass("QVK_Framework_CustomLogger", *this);
        log::ResetCustomLoggerForTesting();
    }
    ~SharedLog() override {
        QVK_Framework_UnregisterClass("QVK_Framework_CustomLogger");
        log::ResetCustomLoggerForTesting();
    }
    bool QVK_Framework_CustomLogger_PerformLogging() override { return true; }
    void QVK_Framework_CustomLogger_LogMessage(const std::optional<std::string>& message, const char*, const char*,
                                               std::uint32_t, const char*) override {
        std::lock_guard lock(mutex_);
        messages_.push_back(message.value_or(""));
    }
    bool Has(const std::string& text) {
        std::lock_guard lock(mutex_);
        return std::find(messages_.begin(), messages_.end(), text) != messages_.end();
    }

private:
    std::mutex mutex_;
    std::vector<std::string> messages_;
};

TEST(FileMonitor, RenameMoveAndDeletionEachGiveOneTriggerOnTheMainThreadWithTheKernelRecord) {
    TempDir dir;
    ASSERT_EQ(mkdir((dir.path() + "/elsewhere").c_str(), 0755), 0);
    struct Case {
        const char* what;
        std::function<int(const std::string&)> change;
        std::uint32_t notes;
    };
    const Case cases[] = {
        {"rename", [&](const std::string& p) { return rename(p.c_str(), (p + "-renamed").c_str()); },
         platform::kNoteRename},
        {"move into another folder",
         [&](const std::string& p) { return rename(p.c_str(), (dir.path() + "/elsewhere/moved").c_str()); },
         platform::kNoteRename},
        {"deletion", [](const std::string& p) { return rmdir(p.c_str()); }, platform::kNoteDelete},
    };
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::string watched = dir.path() + "/watched" + std::to_string(n++);
        ASSERT_EQ(mkdir(watched.c_str(), 0755), 0);
        auto monitor = std::make_shared<RecordingMonitor>();
        ASSERT_TRUE(monitor->QVK_Framework_FileMonitor_InitForName(watched, kDeleteAndRename));
        ASSERT_TRUE(WaitUntilWatched(watched));
        ASSERT_EQ(c.change(watched), 0) << std::strerror(errno);

        EXPECT_TRUE(Serve([&] { return !monitor->records.empty(); }, 5.0));
        Serve([] { return false; }, 0.3);  // room for a wrong second trigger
        ASSERT_EQ(monitor->records.size(), 1u);
        EXPECT_EQ(monitor->threads[0], std::this_thread::get_id());
        ASSERT_EQ(monitor->records[0].size(), sizeof(KernelEvent));
        ASSERT_EQ(sizeof(KernelEvent), 32u);
        KernelEvent record;
        std::memcpy(&record, monitor->records[0].data(), sizeof record);
        EXPECT_EQ(record.ident, static_cast<std::uintptr_t>(monitor->QVK_Framework_FileMonitor_MonitoredHandle()));
        EXPECT_EQ(record.filter, platform::kEventFilterVnode);
        EXPECT_EQ(record.fflags, c.notes);
        EXPECT_EQ(record.data, 0);
        EXPECT_EQ(record.udata, static_cast<QVK_Framework_FileMonitor*>(monitor.get()));
    }
}

TEST(FileMonitor, AMissingPathFailsCreationWithItsLogLineAndLeavesNothingOpen) {
    TempDir dir;
    std::string missing = dir.path() + "/missing";
    CapturingLogger logger;
    int before = OpenDescriptors();
    auto monitor = std::make_shared<RecordingMonitor>();
    EXPECT_FALSE(monitor->QVK_Framework_FileMonitor_InitForName(missing, kDeleteAndRename));
    EXPECT_EQ(OpenDescriptors(), before) << "the queue is closed again";
    EXPECT_EQ(monitor->QVK_Framework_FileMonitor_MonitoredHandle(), -1);

    ASSERT_EQ(logger.entries.size(), 2u);
    const auto& first = logger.entries[0];
    EXPECT_EQ(first.message, missing);
    EXPECT_EQ(first.line, 127u);
    EXPECT_EQ(first.type, "Trace");
    const auto& failure = logger.entries[1];
    EXPECT_EQ(failure.message, "Unable to open \"" + missing + "\" for monitoring: No such file or directory");
    EXPECT_EQ(failure.type, "Errors");
    EXPECT_EQ(failure.line, 154u);
    EXPECT_EQ(failure.file, "Apple/../../../Framework/Library/Filesystem/Apple/FilesystemMonitor");
    EXPECT_EQ(failure.function, "-[QVK_Framework_FileMonitor QVK_Framework_FileMonitor_InitForName:Events:]");

    // No thread can start: every new thread would want more stack than there is address space.
    RunInChild([&] {
        pthread_attr_t huge;
        pthread_attr_init(&huge);
        ASSERT_EQ(pthread_attr_setstacksize(&huge, std::size_t{1} << 48), 0);
        ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
        int before = OpenDescriptors();
        auto unstarted = std::make_shared<RecordingMonitor>();
        EXPECT_FALSE(unstarted->QVK_Framework_FileMonitor_InitForName(dir.path(), kDeleteAndRename));
        EXPECT_EQ(OpenDescriptors(), before);
    });
}

TEST(FileMonitor, TheTerminationByteStopsTheWorkerBeforeLaterChanges) {
    // The stop never completes (creation keeps the handshake lock), so it runs in a child that ends.
    TempDir dir;
    std::string watched = dir.path() + "/watched";
    ASSERT_EQ(mkdir(watched.c_str(), 0755), 0);
    RunInChild([&] {
        SharedLog log;
        auto monitor = std::make_shared<RecordingMonitor>();
        ASSERT_TRUE(monitor->QVK_Framework_FileMonitor_InitForName(watched, kDeleteAndRename));
        std::thread([monitor] { monitor->KillThread(); }).detach();
        ASSERT_TRUE(WaitUntilWatched(watched));
        for (int i = 0; i < 500 && !log.Has("Received termination order"); ++i) usleep(10000);
        EXPECT_TRUE(log.Has("Received termination order"));
        ASSERT_EQ(rename(watched.c_str(), (watched + "-renamed").c_str()), 0);
        Serve([] { return false; }, 0.3);
        EXPECT_TRUE(monitor->records.empty());
    });
}

// The platform's queue service, wrapped: counts the waits under way and, destroyed while one is,
// ends the process with status 3, as a worker would come back into a destroyed service.
class QueueOutlivedByNoWait : public platform::KernelQueue {
public:
    ~QueueOutlivedByNoWait() override {
        if (waiting_ > 0) _exit(3);
    }
    int Create() override { return real_.Create(); }
    int Event(int queue, const KernelEvent* changes, int changeCount, KernelEvent* events, int eventCount,
              const timespec* timeout) override {
        ++waiting_;
        int n = real_.Event(queue, changes, changeCount, events, eventCount, timeout);
        --waiting_;
        return n;
    }
    int Close(int queue) override { return real_.Close(queue); }
    int OpenForEvents(const std::string& path) override { return real_.OpenForEvents(path); }

private:
    platform::KernelQueue& real_ = platform::Use<platform::KernelQueue>();
    std::atomic<int> waiting_ = 0;
};

TEST(FileMonitor, AProcessEndingWithWorkersRunningDestroysNothingTheyUse) {
    TempDir dir;
    std::string watched = dir.path() + "/watched";
    ASSERT_EQ(mkdir(watched.c_str(), 0755), 0);
    RunInChild([&] {
        // Made before the monitors, so destroyed after their start, as the platform's services are.
        static QueueOutlivedByNoWait queue;
        static platform::Replace<platform::KernelQueue> useQueue(queue);
        for (const std::string& path : {dir.path(), watched}) {
            auto monitor = std::make_shared<RecordingMonitor>();
            ASSERT_TRUE(monitor->QVK_Framework_FileMonitor_InitForName(path, kDeleteAndRename));
        }
        // One worker has a change to hand over as the process ends.
        ASSERT_EQ(rename(watched.c_str(), (watched + "-renamed").c_str()), 0);
        std::exit(::testing::Test::HasFailure() ? 1 : 0);
    });
}

}  // namespace
}  // namespace qvk::test
