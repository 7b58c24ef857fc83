// A disposable root for tests of code that works on the system's own folders (/System, /Library,
// /var/db): an overlay of "/" whose changes live on a tmpfs, entered in a forked child through a
// private mount namespace and chroot. Nothing done inside reaches the machine. Needs root.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "test_support.h"

namespace qvk::test {

// Runs `body` in a child whose root is a fresh overlay of "/", with /proc, /dev and an empty /tmp.
// A failed expectation in the child fails the test.
template <class Body>
void InSandboxRoot(Body body) {
    ASSERT_EQ(geteuid(), 0u) << "this test needs root for a sandbox root (mount namespace, overlay, chroot)";
    TempDir base;
    RunInChild([&] {
        auto require = [](bool ok, const char* what) {
            if (!ok) {
                ADD_FAILURE() << what << ": " << std::strerror(errno);
                std::fflush(nullptr);
                _exit(1);
            }
        };
        const std::string& dir = base.path();
        std::string root = dir + "/root";
        require(unshare(CLONE_NEWNS) == 0, "unshare(CLONE_NEWNS)");
        require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "making / private");
        require(mount("tmpfs", dir.c_str(), "tmpfs", 0, "mode=0755") == 0, "tmpfs for the sandbox");
        for (const char* sub : {"/upper", "/work", "/root"})
            require(mkdir((dir + sub).c_str(), 0755) == 0, "sandbox folders");
        std::string options = "lowerdir=/,upperdir=" + dir + "/upper,workdir=" + dir + "/work";
        require(mount("overlay", root.c_str(), "overlay", 0, options.c_str()) == 0, "overlay of /");
        require(mount("proc", (root + "/proc").c_str(), "proc", 0, nullptr) == 0, "/proc in the sandbox");
        require(mount("/dev", (root + "/dev").c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, "/dev in the sandbox");
        require(mount("tmpfs", (root + "/tmp").c_str(), "tmpfs", 0, "mode=1777") == 0, "/tmp in the sandbox");
        require(chroot(root.c_str()) == 0 && chdir("/") == 0, "chroot into the sandbox");
        body();
    });
}

}  // namespace qvk::test
