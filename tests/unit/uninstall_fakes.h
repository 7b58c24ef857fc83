// Recording stand-ins for the services the uninstall sequences use. They write into one journal,
// so a test sees log lines, shell commands, user changes, signals and tidy-up calls in the order
// they happened.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "framework/base/identity.h"
#include "framework/basic/tidyup.h"
#include "framework/log/logging.h"
#include "launcher/my_user.h"
#include "platform/alert_panel.h"
#include "platform/clock.h"
#include "platform/format.h"
#include "platform/home.h"
#include "platform/process_identity.h"
#include "platform/process_signals.h"
#include "platform/processes.h"
#include "platform/shell.h"
#include "test_support.h"

namespace qvk::test {

using Journal = std::vector<std::string>;

// Log entries as "<function>: <message>" ("<trace>" for none); errors as "<function> (Errors): ...".
class JournalLogger : public QVK_Framework_CustomLoggerClass {
public:
    explicit JournalLogger(Journal& journal) : journal_(journal) {
        QVK_Framework_RegisterClass("QVK_Framework_CustomLogger", *this);
        log::ResetCustomLoggerForTesting();
    }
    ~JournalLogger() override {
        QVK_Framework_UnregisterClass("QVK_Framework_CustomLogger");
        log::ResetCustomLoggerForTesting();
    }
    bool QVK_Framework_CustomLogger_PerformLogging() override { return true; }
    void QVK_Framework_CustomLogger_LogMessage(const std::optional<std::string>& message, const char* type, const char*,
                                               std::uint32_t, const char* function) override {
        std::string kind = std::string(type) == "Errors" ? " (Errors)" : "";
        journal_.push_back(std::string(function) + kind + ": " + message.value_or("<trace>"));
    }

private:
    Journal& journal_;
};

// Commands as "$ <command>"; none is run.
class JournalShell : public platform::Shell {
public:
    explicit JournalShell(Journal& journal) : journal_(journal) {}
    int System(const std::string& command) override {
        journal_.push_back("$ " + command);
        return 0;
    }
    int SystemAsUser(const std::string& command, std::uint32_t user) override {
        journal_.push_back(Format("$ %@ (as %u)", command, user));
        return 0;
    }
    // Command output is the real shell's; the caller logs the command.
    std::optional<std::string> Output(const std::string& command, int& status) override {
        return platform::DefaultService<platform::Shell>().Output(command, status);
    }

private:
    Journal& journal_;
};

// The ids follow setuid as the kernel's would for the super-user, without changing the process.
class JournalProcess : public platform::ProcessIdentity {
public:
    JournalProcess(Journal& journal, std::uint32_t uid) : journal_(journal), uid_(uid) {}
    std::uint32_t RealUserID() override { return uid_; }
    std::uint32_t EffectiveUserID() override { return uid_; }
    int BecomeUser(std::uint32_t uid) override {
        journal_.push_back(Format("setuid %u", uid));
        uid_ = uid;
        return 0;
    }
    bool StartedFromDescriptor() override { return false; }
    int ChangeOwner(int, std::uint32_t, std::uint32_t) override { return 0; }
    int ChangeMode(int, mode_t) override { return 0; }
    int Execute(int, char* const[], char* const[]) override { return -1; }

private:
    Journal& journal_;
    std::uint32_t uid_;
};

// Programs as "<how> <program> <arg>... | <number of environment entries> <user>", where how is
// run, start or replace and user is "as <uid>" or "as self". They are then really run, but
// replacing the process fails.
class JournalProcesses : public platform::Processes {
public:
    explicit JournalProcesses(Journal& journal) : journal_(journal) {}
    int Run(const platform::ChildProgram& child) override {
        Record("run", child);
        return Real().Run(child);
    }
    int RunForOutput(const platform::ChildProgram& child, std::string& output) override {
        Record("run", child);
        return Real().RunForOutput(child, output);
    }
    pid_t Start(const platform::ChildProgram& child) override {
        Record("start", child);
        return Real().Start(child);
    }
    int Wait(pid_t pid) override { return Real().Wait(pid); }
    int Replace(const platform::ChildProgram& child) override {
        Record("replace", child);
        errno = ENOENT;
        return -1;
    }

private:
    static platform::Processes& Real() { return platform::DefaultService<platform::Processes>(); }

    void Record(const char* how, const platform::ChildProgram& child) {
        std::string line = std::string(how) + " " + child.program;
        for (const std::string& argument : child.arguments) line += " " + argument;
        line += Format(" | %u ", static_cast<unsigned>(child.environment.size()));
        line += child.user ? Format("as %u", *child.user) : std::string("as self");
        journal_.push_back(line);
    }

    Journal& journal_;
};

// Signals as "kill <pid> <signal>"; none is sent.
class JournalSignals : public platform::ProcessSignals {
public:
    explicit JournalSignals(Journal& journal) : journal_(journal) {}
    int Kill(pid_t pid, int signal) override {
        journal_.push_back(Format("kill %d %d", pid, signal));
        return 0;
    }

private:
    Journal& journal_;
};

// The autostart participant of tidy-up, as "tidy-up <flag>".
class JournalTidyup : public QVK_Framework_Tidyup_Protocol {
public:
    explicit JournalTidyup(Journal& journal, const char* name = "QVK_Framework_Autostart_Tidyup")
        : journal_(journal), name_(name), previous_(QVK_Framework_ClassNamed(name_)) {
        QVK_Framework_RegisterClass(name_, *this);
    }
    // The program's own participant comes back.
    ~JournalTidyup() override {
        if (previous_)
            QVK_Framework_RegisterClass(name_, *previous_);
        else
            QVK_Framework_UnregisterClass(name_);
    }
    void QVK_Framework_Tidyup_Action(bool flag) override { journal_.push_back(Format("tidy-up %d", flag ? 1 : 0)); }

private:
    Journal& journal_;
    std::string name_;
    QVK_Framework_Class* previous_;
};

class JournalPanel : public platform::AlertPanel {
public:
    explicit JournalPanel(Journal& journal) : journal_(journal) {}
    void SharedApplication(std::uint32_t) override {}
    platform::AlertAnswer RunAlertPanel(const std::string& title, const std::string& message,
                                        const std::string& defaultButton,
                                        const std::optional<std::string>& alternateButton) override {
        journal_.push_back(Format("panel [%@] [%@] [%@] [%@]", title, message, defaultButton, alternateButton));
        return {platform::AlertReturn::Default, true, "test"};
    }

private:
    Journal& journal_;
};

class FixedClock : public platform::Clock {
public:
    explicit FixedClock(double now) : now_(now) {}
    double Now() override { return now_; }

private:
    double now_;
};

// The journal's entries that `keep` accepts, in order.
template <class Keep>
Journal Only(const Journal& journal, Keep keep) {
    Journal out;
    for (const std::string& line : journal)
        if (keep(line)) out.push_back(line);
    return out;
}

inline const std::string kApp = "/Applications/Quorvik Connect.app";
inline const std::string kHome = "/Users/maria";

// The installed package, its user and every recording service, as the uninstall sequences see
// them inside a sandbox root: the Launcher acts as the super-user for user 501, whose home is
// kHome, with the launcher bundle inside `app`.
struct UninstallWorld {
    explicit UninstallWorld(std::uint32_t version, const std::string& app = kApp)
        : bundle(app + "/Launcher.app"), gestalt(version) {
        QVK_Framework_Project_Identifier = "com.quorvik.Connect";
        QVK_Framework_Project_Name_Bundle = "Quorvik";
        QVK_Framework_Project_Name_Application = "Quorvik Connect";
        QVK_Framework_ApplicationName = "Quorvik Connect";
        MyUser = 501;
        std::filesystem::create_directories(app + "/Launcher.app/Contents/MacOS");
        std::filesystem::create_directories(kHome + "/.Trash");
    }

    Journal journal;
    JournalLogger logger{journal};
    JournalShell shell{journal};
    JournalProcess process{journal, 0};
    JournalProcesses processes{journal};
    JournalSignals signals{journal};
    JournalPanel panel{journal};
    FixedClock clock{1594384805.25};
    FakeHome home{kHome};
    FakeBundle bundle;
    FakeGestalt gestalt;
    platform::Replace<platform::Shell> useShell{shell};
    platform::Replace<platform::ProcessIdentity> useProcess{process};
    platform::Replace<platform::Processes> useProcesses{processes};
    platform::Replace<platform::ProcessSignals> useSignals{signals};
    platform::Replace<platform::AlertPanel> usePanel{panel};
    platform::Replace<platform::Clock> useClock{clock};
    platform::Replace<platform::Home> useHome{home};
    platform::Replace<platform::Bundle> useBundle{bundle};
    platform::Replace<platform::Gestalt> useGestalt{gestalt};
};

// A driver bundle with the given modification time.
inline void MakeDriver(const std::string& path, time_t modified) {
    WriteFile(path + "/Contents/Info.plist", "<plist/>");
    struct timespec times[2] = {{modified, 0}, {modified, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

inline bool Exists(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
}

}  // namespace qvk::test
