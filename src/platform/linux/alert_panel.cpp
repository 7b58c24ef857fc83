// Panels are separate processes that run as the user they are shown to: zenity, else kdialog, when
// a display is set; else a prompt on the controlling terminal, which is the user's own. Texts
// travel as single arguments of execve, never through a shell.
#include "platform/alert_panel.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "platform/environment.h"
#include "platform/file_write.h"
#include "platform/format.h"
#include "platform/processes.h"
#include "platform/service.h"
#include "platform/unique_fd.h"

namespace qvk::platform {

namespace {

bool IsSet(const char* name) {
    const char* value = std::getenv(name);
    return value && value[0] != '\0';
}

// The program's path in one of the absolute folders of the environment's PATH.
std::optional<std::string> FindProgram(const std::vector<std::string>& environment, const char* name) {
    std::string_view rest = FindVariable(environment, "PATH").value_or("/usr/bin:/bin");
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

// One line from the terminal; a line longer than `limit` is no answer.
std::optional<std::string> ReadLine(int fd, std::size_t limit) {
    std::string line;
    for (;;) {
        char c;
        ssize_t n = read(fd, &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0 || c == '\n') break;
        if (line.size() == limit) return std::nullopt;
        line += c;
    }
    return line;
}

std::string_view Trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) text.remove_suffix(1);
    return text;
}

class LinuxAlertPanel final : public AlertPanel {
public:
    void SharedApplication(std::uint32_t user) override { user_ = user; }

    AlertAnswer RunAlertPanel(const std::string& title, const std::string& message, const std::string& defaultButton,
                              const std::optional<std::string>& alternateButton) override {
        // A process that is not the super-user can show panels only as itself.
        if (user_ != 0 && geteuid() != 0 && geteuid() != user_)
            return {AlertReturn::Default, false, Format("cannot show a panel as user %u", user_)};

        ChildProgram panel;
        panel.environment = ChildEnvironment();
        panel.user = user_;
        int alternateStatus = 0;
        std::string way;
        if (IsSet("DISPLAY") || IsSet("WAYLAND_DISPLAY")) {
            if (auto zenity = FindProgram(panel.environment, "zenity")) {
                way = "zenity";
                panel.program = *zenity;
                if (alternateButton)
                    panel.arguments = {"zenity",
                                       "--question",
                                       "--no-markup",
                                       "--default-cancel",
                                       "--title=" + title,
                                       "--text=" + message,
                                       "--ok-label=" + *alternateButton,
                                       "--cancel-label=" + defaultButton};
                else
                    panel.arguments = {"zenity",
                                       "--info",
                                       "--no-markup",
                                       "--title=" + title,
                                       "--text=" + message,
                                       "--ok-label=" + defaultButton};
            } else if (auto kdialog = FindProgram(panel.environment, "kdialog")) {
                // Yes is kdialog's focused button, so it carries the default; Escape and closing the
                // window give the cancel status, which is the default too.
                way = "kdialog";
                panel.program = *kdialog;
                alternateStatus = 1;
                if (alternateButton)
                    panel.arguments = {"kdialog",    "--title",        title,           "--yes-label", defaultButton,
                                       "--no-label", *alternateButton, "--yesnocancel", message};
                else
                    panel.arguments = {"kdialog", "--title", title, "--ok-label", defaultButton, "--msgbox", message};
            }
        }
        if (way.empty()) return AskOnTerminal(title, message, defaultButton, alternateButton);

        int status = Use<Processes>().Run(panel);
        if (status == -1)
            return {AlertReturn::Default, false, way + ": could not start the panel: " + std::strerror(errno)};
        bool alternate = alternateButton && WIFEXITED(status) && WEXITSTATUS(status) == alternateStatus;
        return {alternate ? AlertReturn::Alternate : AlertReturn::Default, true, way};
    }

private:
    // The user's own terminal: the prompt is written to it and one line read back, in this process.
    static AlertAnswer AskOnTerminal(const std::string& title, const std::string& message,
                                     const std::string& defaultButton,
                                     const std::optional<std::string>& alternateButton) {
        UniqueFd tty(open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
        if (tty.get() < 0) return {AlertReturn::Default, false, "no display and no terminal"};
        std::string prompt = Printable("\n" + title + "\n\n" + message + "\n\n");
        if (alternateButton)
            prompt += Printable(Format("(%@ / %@, Return: %@) ", *alternateButton, defaultButton, defaultButton));
        else
            prompt += Printable(Format("(Return: %@) ", defaultButton));
        if (!WriteAll(tty.get(), prompt))
            return {AlertReturn::Default, false, "terminal: " + std::string(std::strerror(errno))};
        std::optional<std::string> line = ReadLine(tty.get(), 256);
        bool alternate = alternateButton && line && AsciiLower(Trimmed(*line)) == AsciiLower(*alternateButton);
        return {alternate ? AlertReturn::Alternate : AlertReturn::Default, true, "terminal"};
    }

    std::uint32_t user_ = 0;
};

}  // namespace

template <>
AlertPanel& DefaultService<AlertPanel>() {
    static LinuxAlertPanel panel;
    return panel;
}

}  // namespace qvk::platform
