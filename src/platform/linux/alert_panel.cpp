// Panels are separate processes that run as the user they are shown to: zenity, else kdialog, when
// a display is set; else a prompt on the controlling terminal. Texts travel as single arguments of
// execve, never through a shell.
#include "platform/alert_panel.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "platform/format.h"
#include "platform/service.h"

namespace qvk::platform {

namespace {

class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() { Close(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }
    void Close() {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};

// The account a panel is shown to, read before any fork.
struct Account {
    uid_t uid = 0;
    gid_t gid = 0;
    std::string name;
    std::string home;
    std::vector<gid_t> groups;
};

std::optional<Account> LookUpAccount(uid_t uid) {
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buf(size > 0 ? static_cast<std::size_t>(size) : 16384);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(uid, &entry, buf.data(), buf.size(), &found) != 0 || !found) return std::nullopt;
    Account account{uid, found->pw_gid, found->pw_name, found->pw_dir ? found->pw_dir : "/", {}};
    int count = 32;
    for (;;) {
        account.groups.resize(static_cast<std::size_t>(count));
        int wanted = count;
        if (getgrouplist(account.name.c_str(), account.gid, account.groups.data(), &wanted) >= 0) {
            account.groups.resize(static_cast<std::size_t>(wanted));
            return account;
        }
        if (wanted <= count) return std::nullopt;
        count = wanted;
    }
}

bool IsSet(const char* name) {
    const char* value = std::getenv(name);
    return value && value[0] != '\0';
}

// The program's path in one of the absolute folders of PATH.
std::optional<std::string> FindProgram(const char* name) {
    const char* path = std::getenv("PATH");
    std::string_view rest(path ? path : "/usr/bin:/bin");
    while (!rest.empty()) {
        auto colon = rest.find(':');
        std::string_view folder = rest.substr(0, colon);
        rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
        if (folder.empty() || folder[0] != '/') continue;
        std::string candidate = std::string(folder) + "/" + name;
        struct stat st {};
        if (stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(candidate.c_str(), X_OK) == 0)
            return candidate;
    }
    return std::nullopt;
}

bool HasControllingTerminal() {
    Fd tty(open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
    return tty.get() >= 0;
}

// Control characters other than newline and tab could steer the terminal; they show as '?'.
std::string Printable(const std::string& text) {
    std::string out = text;
    for (char& c : out) {
        auto byte = static_cast<unsigned char>(c);
        if ((byte < 0x20 && c != '\n' && c != '\t') || byte == 0x7f) c = '?';
    }
    return out;
}

std::string AsciiLower(std::string_view text) {
    std::string out(text);
    for (char& c : out)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return out;
}

// Everything the child needs, prepared in the parent: after fork the child only makes system calls.
struct ChildPlan {
    const Account* dropTo = nullptr;  // null: stay the process's user
    // A program to run, or the terminal prompt when `program` is empty.
    std::string program;
    std::vector<std::string> arguments;
    std::vector<std::string> environment;
    std::string prompt;
    std::string alternateAnswer;  // lower case; empty for a one-button panel
};

void ReportAndExit(int pipe, int error) {
    ssize_t ignored = write(pipe, &error, sizeof error);
    (void)ignored;
    _exit(127);
}

void BecomeUser(const Account& account, int pipe) {
    if (setgroups(account.groups.size(), account.groups.data()) != 0 || setgid(account.gid) != 0 ||
        setuid(account.uid) != 0)
        ReportAndExit(pipe, errno);
    // The super-user must be out of reach for good.
    if (getuid() != account.uid || geteuid() != account.uid || (account.uid != 0 && setuid(0) == 0))
        ReportAndExit(pipe, EPERM);
}

// Exit status 0 for the alternate answer, 1 for the default.
[[noreturn]] void AskOnTerminal(const ChildPlan& plan, int pipe) {
    int tty = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (tty < 0) ReportAndExit(pipe, errno);
    close(pipe);
    for (std::size_t done = 0; done < plan.prompt.size();) {
        ssize_t n = write(tty, plan.prompt.data() + done, plan.prompt.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) _exit(1);
        done += static_cast<std::size_t>(n);
    }
    // One line; a line longer than the buffer is no answer and gives the default.
    char line[256];
    std::size_t length = 0;
    bool tooLong = false;
    for (;;) {
        char c;
        ssize_t n = read(tty, &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0 || c == '\n') break;
        if (length < sizeof line)
            line[length++] = c;
        else
            tooLong = true;
    }
    if (tooLong || plan.alternateAnswer.empty()) _exit(1);
    std::size_t start = 0;
    while (start < length && (line[start] == ' ' || line[start] == '\t')) ++start;
    while (length > start && (line[length - 1] == ' ' || line[length - 1] == '\t' || line[length - 1] == '\r'))
        --length;
    if (length - start != plan.alternateAnswer.size()) _exit(1);
    for (std::size_t i = 0; i < plan.alternateAnswer.size(); ++i) {
        char c = line[start + i];
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        if (c != plan.alternateAnswer[i]) _exit(1);
    }
    _exit(0);
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

// Runs the child and gives its exit status; none, with `error` set, when it could not start.
std::optional<int> RunChild(ChildPlan& plan, std::string& error) {
    std::vector<char*> argv = Pointers(plan.arguments);
    std::vector<char*> envp = Pointers(plan.environment);
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        error = Format("pipe: %s", std::strerror(errno));
        return std::nullopt;
    }
    Fd readEnd(fds[0]);
    Fd writeEnd(fds[1]);
    pid_t pid = fork();
    if (pid < 0) {
        error = Format("fork: %s", std::strerror(errno));
        return std::nullopt;
    }
    if (pid == 0) {
        if (plan.dropTo) BecomeUser(*plan.dropTo, writeEnd.get());
        if (plan.program.empty()) AskOnTerminal(plan, writeEnd.get());
        execve(plan.program.c_str(), argv.data(), envp.data());
        ReportAndExit(writeEnd.get(), errno);
    }
    writeEnd.Close();
    int childError = 0;
    ssize_t got;
    do got = read(readEnd.get(), &childError, sizeof childError);
    while (got < 0 && errno == EINTR);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (got == static_cast<ssize_t>(sizeof childError)) {
        error = Format("could not start the panel: %s", std::strerror(childError));
        return std::nullopt;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class LinuxAlertPanel final : public AlertPanel {
public:
    void SharedApplication(std::uint32_t user) override {
        user_ = user;
        account_ = user == 0 ? std::nullopt : LookUpAccount(user);
    }

    AlertAnswer RunAlertPanel(const std::string& title, const std::string& message, const std::string& defaultButton,
                              const std::optional<std::string>& alternateButton) override {
        ChildPlan plan;
        if (user_ != 0) {
            if (!account_) return {AlertReturn::Default, false, Format("no account for user %u", user_)};
            if (geteuid() == 0)
                plan.dropTo = &*account_;
            else if (geteuid() != user_)
                return {AlertReturn::Default, false, Format("cannot show a panel as user %u", user_)};
        }
        plan.environment = Environment(plan.dropTo);

        int alternateStatus = 0;
        std::string way;
        if (IsSet("DISPLAY") || IsSet("WAYLAND_DISPLAY")) {
            if (auto zenity = FindProgram("zenity")) {
                way = "zenity";
                plan.program = *zenity;
                if (alternateButton)
                    plan.arguments = {"zenity",
                                      "--question",
                                      "--no-markup",
                                      "--default-cancel",
                                      "--title=" + title,
                                      "--text=" + message,
                                      "--ok-label=" + *alternateButton,
                                      "--cancel-label=" + defaultButton};
                else
                    plan.arguments = {"zenity",
                                      "--info",
                                      "--no-markup",
                                      "--title=" + title,
                                      "--text=" + message,
                                      "--ok-label=" + defaultButton};
            } else if (auto kdialog = FindProgram("kdialog")) {
                // Yes is kdialog's focused button, so it carries the default; Escape and closing the
                // window give the cancel status, which is the default too.
                way = "kdialog";
                plan.program = *kdialog;
                alternateStatus = 1;
                if (alternateButton)
                    plan.arguments = {"kdialog",    "--title",        title,           "--yes-label", defaultButton,
                                      "--no-label", *alternateButton, "--yesnocancel", message};
                else
                    plan.arguments = {"kdialog", "--title", title, "--ok-label", defaultButton, "--msgbox", message};
            }
        }
        if (way.empty()) {
            if (!HasControllingTerminal()) return {AlertReturn::Default, false, "no display and no terminal"};
            way = "terminal";
            plan.prompt = Printable("\n" + title + "\n\n" + message + "\n\n");
            if (alternateButton) {
                plan.prompt +=
                    Printable(Format("(%@ / %@, Return: %@) ", *alternateButton, defaultButton, defaultButton));
                plan.alternateAnswer = AsciiLower(*alternateButton);
            } else {
                plan.prompt += Printable(Format("(Return: %@) ", defaultButton));
            }
        }

        std::string error;
        std::optional<int> status = RunChild(plan, error);
        if (!status) return {AlertReturn::Default, false, way + ": " + error};
        bool alternate = alternateButton && *status == alternateStatus;
        return {alternate ? AlertReturn::Alternate : AlertReturn::Default, true, way};
    }

private:
    // The process's environment; for another user with that user's home and names.
    static std::vector<std::string> Environment(const Account* user) {
        std::vector<std::string> environment;
        for (char** entry = environ; *entry; ++entry) {
            std::string_view text(*entry);
            if (user && (text.starts_with("HOME=") || text.starts_with("USER=") || text.starts_with("LOGNAME=")))
                continue;
            environment.emplace_back(text);
        }
        if (user) {
            environment.push_back("HOME=" + user->home);
            environment.push_back("USER=" + user->name);
            environment.push_back("LOGNAME=" + user->name);
        }
        return environment;
    }

    std::uint32_t user_ = 0;
    std::optional<Account> account_;
};

}  // namespace

template <>
AlertPanel& DefaultService<AlertPanel>() {
    static LinuxAlertPanel panel;
    return panel;
}

}  // namespace qvk::platform
