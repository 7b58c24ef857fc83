// Children and the process identity as the kernel sees them: a child's identity, descriptors and
// signals, the shell's search rules, the running file reached through its descriptor, and a user's
// whole identity taken at once.
#include <fcntl.h>
#include <grp.h>
#include <signal.h>

#include "../unit/test_support.h"
#include "platform/processes.h"
#include "platform/unique_fd.h"

namespace qvk::test {
namespace {

constexpr std::uint32_t kNobody = 65534;

std::string OutputOf(const platform::ChildProgram& child, int& status) {
    std::string output;
    status = platform::Use<platform::Processes>().RunForOutput(child, output);
    return output;
}

TEST(Processes, AChildHasItsIdentityOnlyTheStandardDescriptorsDefaultSignalsAndIsFoundAsTheShellFindsIt) {
    ASSERT_EQ(geteuid(), 0u) << "this test needs root to start children as other users";
    int status = -1;
    RunInChild([&status] {
        // What a careless parent would hand down: an open descriptor, an ignored and a blocked signal.
        ASSERT_EQ(dup2(STDIN_FILENO, 100), 100);
        signal(SIGTERM, SIG_IGN);
        sigset_t blocked{};
        sigaddset(&blocked, SIGUSR1);
        sigprocmask(SIG_BLOCK, &blocked, nullptr);
        std::string script = "id -u; id -G; echo $HOME $USER $KEPT; ls /proc/self/fd";
        platform::ChildProgram child{"sh", {"sh", "-c", script}, {}, kNobody, false};
        child.environment = {"PATH=/usr/bin:/bin", "HOME=/root", "USER=root", "KEPT=yes"};
        EXPECT_EQ(OutputOf(child, status), "65534\n65534\n/nonexistent nobody yes\n0\n1\n2\n3\n");
        // Read by the program itself: a shell clears the blocked signals on its own.
        child.program = "grep";
        child.arguments = {"grep", "Sig[BI]", "/proc/self/status"};
        EXPECT_EQ(OutputOf(child, status), "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
    });
    TempDir dir;
    std::string locked = dir.path() + "/locked", open = dir.path() + "/open";
    // Not executable where it is found first; a script without "#!" where it is found next.
    WriteFile(locked + "/qvk-tool", "echo wrong\n");
    WriteFile(open + "/qvk-tool", "echo \"script $1\"\n");
    ASSERT_EQ(chmod((open + "/qvk-tool").c_str(), 0755), 0);
    platform::ChildProgram child{"qvk-tool", {"qvk-tool", "one"}, {"PATH=" + locked + ":" + open}, std::nullopt, false};
    EXPECT_EQ(OutputOf(child, status), "script one\n");
    child.environment = {"PATH=" + locked};
    EXPECT_EQ(OutputOf(child, status), "");
    EXPECT_TRUE(status == -1 && errno == EACCES) << status << " " << std::strerror(errno);
    auto& shell = platform::Use<platform::Shell>();
    EXPECT_EQ(shell.System("qvk-no-such-tool \"a b\""), W_EXITCODE(127, 0));
    EXPECT_EQ(shell.System("\"" + locked + "/qvk-tool\""), W_EXITCODE(126, 0));
    RunInChild([&shell, &status] {
        // As a Launcher started set-user-id below 10.6: real user nobody, effective super-user.
        ASSERT_EQ(setresuid(kNobody, 0, 0), 0);
        EXPECT_EQ(shell.Output("/usr/bin/id -u", status), "65534\n");
        EXPECT_EQ(shell.Output("/usr/bin/id -u | cat", status), "65534\n");
    });
}

TEST(ProcessIdentity, TheRunningFileIsChangedAndExecutedThroughItsDescriptorWhateverItsPathNamesMeanwhile) {
    ASSERT_EQ(geteuid(), 0u) << "this test needs root: it changes owners";
    TempDir dir;
    std::string path = dir.path() + "/Launcher", moved = dir.path() + "/Moved";
    std::filesystem::copy_file("/bin/sh", path);
    platform::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    // The file goes elsewhere, and a program of somebody else's takes its path.
    std::filesystem::rename(path, moved);
    WriteFile(path, "#!/bin/sh\nexit 1\n");
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
    auto& process = platform::Use<platform::ProcessIdentity>();
    EXPECT_EQ(process.ChangeOwner(file.get(), kNobody, kNobody), 0);
    EXPECT_EQ(process.ChangeMode(file.get(), 0711), 0);
    EXPECT_EQ(OwnerAndMode(moved), "65534:65534 711");
    EXPECT_EQ(OwnerAndMode(path), "0:0 755");
    RunInChild([&] {
        // The new image is the moved file, and it runs with the user's whole identity.
        setenv("HOME", "/tmp/the-callers-choice", 1);
        ASSERT_EQ(setgroups(2, std::array<gid_t, 2>{4, 27}.data()), 0);
        ASSERT_EQ(process.BecomeUser(kNobody), 0);
        std::string script = "test \"$(id -u) $(id -G) $HOME\" = \"65534 65534 /nonexistent\"";
        char* const argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), script.data(), nullptr};
        process.Execute(file.get(), argv, environ);
        ADD_FAILURE() << "not executed: " << std::strerror(errno);
    });
}

}  // namespace
}  // namespace qvk::test
