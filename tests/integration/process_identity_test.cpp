// The process identity against the real kernel: the running file reached through its descriptor,
// and the whole identity of a user taken at once.
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <vector>

#include "../unit/test_support.h"
#include "platform/account.h"
#include "platform/process_identity.h"
#include "platform/service.h"
#include "platform/unique_fd.h"

namespace qvk::test {
namespace {

constexpr std::uint32_t kNobody = 65534;

// What `step` writes to the descriptor it is given, run in a child process.
std::string FromChild(const std::function<void(int)>& step) {
    int ends[2];
    if (pipe(ends) != 0) return "no pipe";
    platform::UniqueFd in(ends[0]), out(ends[1]);
    pid_t pid = fork();
    if (pid == 0) {
        in.reset();
        step(out.get());
        _exit(0);
    }
    out.reset();
    std::string text;
    char buffer[256];
    for (ssize_t n; (n = read(in.get(), buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<std::size_t>(n));
    waitpid(pid, nullptr, 0);
    return text;
}

// "uid euid gid egid | groups | HOME", as the kernel and the environment tell them.
std::string IdentityText() {
    std::string text = Format("%u %u %u %u |", getuid(), geteuid(), getgid(), getegid());
    gid_t groups[256];
    int count = getgroups(256, groups);
    for (int i = 0; i < count; ++i) text += Format(" %u", groups[i]);
    const char* home = std::getenv("HOME");
    return text + " | " + (home ? home : "no HOME");
}

TEST(ProcessIdentity, TheRunningFileIsChangedAndExecutedThroughItsDescriptorWhateverItsPathNamesMeanwhile) {
    ASSERT_EQ(geteuid(), 0u) << "this test needs root: it changes owners";
    TempDir dir;
    std::string path = dir.path() + "/Launcher", moved = dir.path() + "/Moved";
    std::filesystem::copy_file("/bin/echo", path);
    platform::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_GE(file.get(), 0);
    // The file goes elsewhere, and a program of somebody else's takes its path.
    std::filesystem::rename(path, moved);
    WriteFile(path, "#!/bin/sh\necho planted\n");
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);

    auto& process = platform::Use<platform::ProcessIdentity>();
    EXPECT_EQ(process.ChangeOwner(file.get(), kNobody, kNobody), 0);
    EXPECT_EQ(process.ChangeMode(file.get(), 0711), 0);
    EXPECT_EQ(OwnerAndMode(moved), "65534:65534 711");
    EXPECT_EQ(OwnerAndMode(path), "0:0 755");
    EXPECT_EQ(FromChild([&](int out) {
                  dup2(out, STDOUT_FILENO);
                  char name[] = "echo", text[] = "the running file";
                  char* const argv[] = {name, text, nullptr};
                  process.Execute(file.get(), argv, environ);
              }),
              "the running file\n");
}

TEST(ProcessIdentity, BecomingAUserTakesItsGroupsGroupAndHomeAndTheSuperUserKeepsNoGroup) {
    ASSERT_EQ(geteuid(), 0u) << "this test needs root: it changes user ids";
    std::optional<platform::Account> nobody = platform::LookUpAccount(kNobody);
    ASSERT_TRUE(nobody) << "no account for uid 65534";
    // Each child starts with groups of the super-user's that must not stay.
    auto become = [](std::uint32_t uid) {
        return FromChild([uid](int out) {
            const gid_t foreign[] = {4, 27};
            setenv("HOME", "/tmp/the-callers-choice", 1);
            if (setgroups(2, foreign) != 0 || setegid(27) != 0) _exit(1);
            int result = platform::Use<platform::ProcessIdentity>().BecomeUser(uid);
            std::string text = Format("%d: ", result) + IdentityText();
            if (write(out, text.data(), text.size()) < 0) _exit(1);
        });
    };
    // The kernel keeps the groups sorted.
    std::vector<gid_t> sorted = nobody->groups;
    std::sort(sorted.begin(), sorted.end());
    std::string groups;
    for (gid_t group : sorted) groups += Format(" %u", group);
    EXPECT_EQ(become(kNobody), Format("0: 65534 65534 %u %u |%@ | %@", nobody->gid, nobody->gid, groups, nobody->home));
    EXPECT_EQ(become(0), "0: 0 0 0 0 | | /tmp/the-callers-choice");
}

}  // namespace
}  // namespace qvk::test
