// Children are prepared wholly in the parent. A child is started as vfork does it (clone with
// CLONE_VM | CLONE_VFORK on a stack of its own): it shares the parent's memory until execve, and the
// calling thread waits until then, so no copy of the address space is made only to be thrown away.
// Between clone and execve the child therefore makes only system calls: it allocates nothing, takes
// no lock and writes no memory of the parent's but errno.
#include "platform/processes.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "platform/account.h"
#include "platform/environment.h"
#include "platform/process_identity.h"
#include "platform/service.h"
#include "platform/unique_fd.h"

namespace qvk::platform {

namespace {

// What /bin/sh searches when the environment names no PATH.
constexpr const char* kShell = "/bin/sh";
constexpr const char* kDefaultPath = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

// A child program turned into what its process needs, with every allocation made in the parent.
class Plan {
public:
    // False with errno set when it cannot be carried out (no account for its user).
    bool Prepare(const ChildProgram& child) {
        arguments_ = child.arguments;
        environment_ = child.environment;
        shellIdentity_ = child.shellIdentity;
        if (child.user && *child.user != 0 && geteuid() == 0) {
            account_ = LookUpAccount(*child.user);
            if (!account_) {
                errno = ESRCH;
                return false;
            }
            SetVariable(environment_, "HOME", account_->home);
            SetVariable(environment_, "USER", account_->name);
            SetVariable(environment_, "LOGNAME", account_->name);
        }
        candidates_.clear();
        if (child.program.find('/') != std::string::npos) {
            candidates_.push_back(child.program);
        } else {
            std::string_view path = FindVariable(environment_, "PATH").value_or(kDefaultPath);
            for (;;) {
                std::size_t colon = path.find(':');
                std::string_view folder = path.substr(0, colon);
                // An empty entry is the current folder, as for the shell.
                candidates_.push_back(folder.empty() ? child.program : std::string(folder) + "/" + child.program);
                if (colon == std::string_view::npos) break;
                path.remove_prefix(colon + 1);
            }
        }
        argv_ = Pointers(arguments_);
        envp_ = Pointers(environment_);
        // Each place's script vector: "/bin/sh", the place, the arguments after the first.
        scripts_.clear();
        for (std::string& candidate : candidates_) {
            std::vector<char*>& script = scripts_.emplace_back();
            script = {const_cast<char*>(kShell), candidate.data()};
            script.insert(script.end(), argv_.begin() + (arguments_.empty() ? 0 : 1), argv_.end());
        }
        struct rlimit limit {};
        highestDescriptor_ = getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY
                                 ? static_cast<int>(std::min<rlim_t>(limit.rlim_cur, 1 << 20))
                                 : 1 << 20;
        return true;
    }

    // In the child (or in place): resets signals, takes the identity, leaves descriptors 0-2 only,
    // and executes. Returns the errno that ends the attempt.
    int Execute(IdentityScope scope) {
        struct sigaction standard {};
        standard.sa_handler = SIG_DFL;
        for (int signal = 1; signal < NSIG; ++signal) sigaction(signal, &standard, nullptr);

        if (account_) {
            if (int error = TakeIdentity(*account_, scope)) return error;
        } else if (shellIdentity_ && (getuid() != geteuid() || getgid() != getegid())) {
            // What /bin/sh does when it is started with ids that differ.
            bool failed = scope == IdentityScope::Process
                              ? setuid(getuid()) != 0 || setgid(getgid()) != 0
                              : syscall(SYS_setuid, getuid()) != 0 || syscall(SYS_setgid, getgid()) != 0;
            if (failed) return errno;
        }

        if (syscall(SYS_close_range, 3u, ~0u, CLOSE_RANGE_CLOEXEC) != 0)
            for (int fd = 3; fd < highestDescriptor_; ++fd) fcntl(fd, F_SETFD, FD_CLOEXEC);

        // Unblocked last: a signal the user sends once the child is theirs waits for their program.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);

        // As the shell: every place is tried, and the last one that was there but failed decides. A
        // file that is no program is read by /bin/sh, as the shell reads a script.
        int result = ENOENT;
        for (std::vector<char*>& script : scripts_) {
            execve(script[1], argv_.data(), envp_.data());
            if (errno == ENOEXEC) execve(kShell, script.data(), envp_.data());
            if (errno != ENOENT && errno != ENOTDIR) result = errno;
        }
        return result;
    }

private:
    static std::vector<char*> Pointers(std::vector<std::string>& texts) {
        std::vector<char*> pointers;
        for (std::string& text : texts) pointers.push_back(text.data());
        pointers.push_back(nullptr);
        return pointers;
    }

    std::vector<std::string> arguments_;
    std::vector<std::string> environment_;
    std::vector<std::string> candidates_;
    std::vector<char*> argv_;
    std::vector<char*> envp_;
    std::vector<std::vector<char*>> scripts_;
    std::optional<Account> account_;
    bool shellIdentity_ = false;
    int highestDescriptor_ = 0;
};

// Signals stay blocked from just before the clone until the child has reset its handlers, so that no
// handler of the parent ever runs in the child on the memory the two share.
class BlockedSignals {
public:
    BlockedSignals() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &previous_);
    }
    ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

private:
    sigset_t previous_;
};

void WriteErrno(int fd, int error) {
    if (fd < 0) return;
    ssize_t ignored = write(fd, &error, sizeof error);
    (void)ignored;
}

int WaitFor(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) return -1;
    return status;
}

// The child's stack, mapped for one start: the parent's own stack is in use by the parent's frames
// below the clone call.
class ChildStack {
public:
    static constexpr std::size_t kSize = 256 * 1024;
    ChildStack() : base_(mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0)) {
        // The lowest page stays out of reach, so that an overflow faults instead of writing below.
        if (base_ != MAP_FAILED && mprotect(base_, kGuard, PROT_NONE) != 0) {
            munmap(base_, kSize);
            base_ = MAP_FAILED;
        }
    }
    ~ChildStack() {
        if (base_ != MAP_FAILED) munmap(base_, kSize);
    }
    ChildStack(const ChildStack&) = delete;
    ChildStack& operator=(const ChildStack&) = delete;

    // The top of the stack, null when it could not be mapped.
    void* top() const { return base_ == MAP_FAILED ? nullptr : static_cast<char*>(base_) + kSize; }

private:
    static constexpr std::size_t kGuard = 4096;
    void* base_;
};

struct ChildStart {
    Plan* plan;
    int failure;
    int output;
};

// Not instrumented by AddressSanitizer, which cannot tell this stack from the parent's when the child
// ends.
[[gnu::no_sanitize_address]] int ChildMain(void* data) {
    const ChildStart& start = *static_cast<const ChildStart*>(data);
    if (start.output >= 0 && dup2(start.output, STDOUT_FILENO) < 0) {
        WriteErrno(start.failure, errno);
        _exit(127);
    }
    WriteErrno(start.failure, start.plan->Execute(IdentityScope::CallingTask));
    _exit(127);
}

// Starts a child that executes the plan; `output`, when valid, becomes its standard output. The
// child's failure to execute arrives on `failure` as an errno. Returns once the child executed the
// program or ended.
pid_t StartChild(Plan& plan, int failure, int output) {
    ChildStack stack;
    if (!stack.top()) return -1;
    ChildStart start{&plan, failure, output};
    BlockedSignals blocked;
    return clone(ChildMain, stack.top(), CLONE_VM | CLONE_VFORK | SIGCHLD, &start);
}

// Runs the plan and waits; `collect` receives the child's standard output when given.
int RunPlan(Plan& plan, std::string* collect) {
    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0) return -1;
    UniqueFd reportRead(report[0]), reportWrite(report[1]);
    UniqueFd outputRead, outputWrite;
    if (collect) {
        int output[2];
        if (pipe2(output, O_CLOEXEC) != 0) return -1;
        outputRead.reset(output[0]);
        outputWrite.reset(output[1]);
    }
    pid_t pid = StartChild(plan, reportWrite.get(), outputWrite.get());
    if (pid < 0) return -1;
    reportWrite.reset();
    outputWrite.reset();

    if (collect) {
        char buffer[4096];
        for (;;) {
            ssize_t n = read(outputRead.get(), buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            collect->append(buffer, static_cast<std::size_t>(n));
        }
    }
    int error = 0;
    ssize_t got;
    do got = read(reportRead.get(), &error, sizeof error);
    while (got < 0 && errno == EINTR);
    int status = WaitFor(pid);
    if (got == static_cast<ssize_t>(sizeof error)) {
        errno = error;
        return -1;
    }
    return status;
}

class LinuxProcesses final : public Processes {
public:
    int Run(const ChildProgram& child) override {
        Plan plan;
        return plan.Prepare(child) ? RunPlan(plan, nullptr) : -1;
    }

    int RunForOutput(const ChildProgram& child, std::string& output) override {
        Plan plan;
        return plan.Prepare(child) ? RunPlan(plan, &output) : -1;
    }

    pid_t Start(const ChildProgram& child) override {
        Plan plan;
        return plan.Prepare(child) ? StartChild(plan, -1, -1) : -1;
    }

    int Wait(pid_t pid) override { return WaitFor(pid); }

    int Replace(const ChildProgram& child) override {
        Plan plan;
        if (!plan.Prepare(child)) return -1;
        errno = plan.Execute(IdentityScope::Process);
        return -1;
    }
};

}  // namespace

template <>
Processes& DefaultService<Processes>() {
    static LinuxProcesses processes;
    return processes;
}

}  // namespace qvk::platform
