// Children as the kernel sees them: identity, descriptors, signals, and the shell's search and
// identity rules for commands run without a shell.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "../unit/test_support.h"
#include "platform/processes.h"
#include "platform/shell.h"

namespace qvk::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr std::uint32_t kNobody = 65534;

std::string OutputOf(const platform::ChildProgram& child, int& status) {
    std::string output;
    status = platform::Use<platform::Processes>().RunForOutput(child, output);
    return output;
}

TEST(Processes, AChildHasTheUsersIdentityOnlyTheStandardDescriptorsAndDefaultSignals) {
    ASSERT_EQ(geteuid(), 0u) << "this test needs root to start a child as another user";
    RunInChild([] {
        // What a careless parent would hand down: an open descriptor, an ignored and a blocked signal.
        constexpr int kLeaked = 100;
        ASSERT_EQ(dup2(STDIN_FILENO, kLeaked), kLeaked);
        signal(SIGTERM, SIG_IGN);
        sigset_t blocked;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGUSR1);
        sigprocmask(SIG_BLOCK, &blocked, nullptr);

        auto run = [](std::vector<std::string> arguments) {
            platform::ChildProgram child{arguments.front(),
                                         arguments,
                                         {"PATH=/usr/bin:/bin", "HOME=/root", "USER=root", "KEPT=yes"},
                                         kNobody,
                                         false};
            int status = -1;
            std::string output = OutputOf(child, status);
            EXPECT_EQ(status, 0) << arguments.back();
            return output;
        };
        EXPECT_EQ(run({"sh", "-c", "id -u; id -G; echo \"$HOME $USER $KEPT\""}),
                  "65534\n65534\n/nonexistent nobody yes\n");
        EXPECT_EQ(run({"grep", "-E", "^Sig(Blk|Ign)", "/proc/self/status"}),
                  "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
        EXPECT_THAT(Lines(run({"ls", "/proc/self/fd"})), Not(::testing::Contains(std::to_string(kLeaked))));
    });
}

TEST(Processes, ABareNameIsSearchedAsTheShellSearchesIt) {
    TempDir dir;
    std::string locked = dir.path() + "/locked", open = dir.path() + "/open";
    std::filesystem::create_directories(locked);
    std::filesystem::create_directories(open);
    // Not executable where it is found first; a script without "#!" where it is found next.
    WriteFile(locked + "/qvk-tool", "echo wrong\n");
    WriteFile(open + "/qvk-tool", "echo \"script $1\"\n");
    ASSERT_EQ(chmod((open + "/qvk-tool").c_str(), 0755), 0);
    platform::ChildProgram child{"qvk-tool", {"qvk-tool", "one"}, {"PATH=" + locked + ":" + open}, std::nullopt, false};
    int status = -1;
    EXPECT_EQ(OutputOf(child, status), "script one\n");
    EXPECT_EQ(status, 0);

    child.environment = {"PATH=" + locked};
    EXPECT_EQ(OutputOf(child, status), "");
    EXPECT_EQ(status, -1);
    EXPECT_EQ(errno, EACCES);

    auto& shell = platform::Use<platform::Shell>();
    EXPECT_EQ(shell.System("qvk-no-such-tool \"a b\""), W_EXITCODE(127, 0));
    EXPECT_EQ(shell.System("\"" + locked + "/qvk-tool\""), W_EXITCODE(126, 0));
}

TEST(Shell, ACommandRunWithoutAShellLeavesTheIdentityTheShellWould) {
    ASSERT_EQ(geteuid(), 0u) << "this test needs root to start with differing user ids";
    RunInChild([] {
        // As a Launcher started set-user-id below 10.6: real user nobody, effective super-user.
        ASSERT_EQ(setresuid(kNobody, 0, 0), 0);
        int status = -1;
        EXPECT_EQ(platform::Use<platform::Shell>().Output("/usr/bin/id -u", status), "65534\n");
        EXPECT_EQ(platform::Use<platform::Shell>().Output("/usr/bin/id -u | cat", status), "65534\n");
        ASSERT_EQ(setresuid(0, 0, 0), 0);
        EXPECT_EQ(platform::Use<platform::Shell>().Output("/usr/bin/id -u", status), "0\n");
    });
}

}  // namespace
}  // namespace qvk::test
