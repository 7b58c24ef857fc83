// A virtual X display for panel tests, and the helpers that find, inspect and answer windows.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace qvk::test {

// Runs a program with extra environment entries and gives its standard output and exit status.
inline std::string RunProgram(const std::vector<std::string>& argv, const std::vector<std::string>& environment,
                              int* status = nullptr) {
    int out[2];
    if (pipe(out) != 0) return {};
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], 1);
        close(out[0]);
        close(out[1]);
        for (const std::string& entry : environment) putenv(const_cast<char*>(entry.c_str()));
        std::vector<char*> args;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    close(out[1]);
    std::string text;
    char buf[512];
    for (ssize_t n; (n = read(out[0], buf, sizeof buf)) > 0;) text.append(buf, static_cast<std::size_t>(n));
    close(out[0]);
    int st = 0;
    waitpid(pid, &st, 0);
    if (status) *status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

// The real, effective, saved and file-system user ids of a running process.
inline std::vector<unsigned> UserIdsOf(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::vector<unsigned> ids;
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("Uid:", 0) != 0) continue;
        std::istringstream fields(line.substr(4));
        for (unsigned id; fields >> id;) ids.push_back(id);
    }
    return ids;
}

// The arguments a running process was started with.
inline std::vector<std::string> ArgumentsOf(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/cmdline", std::ios::binary);
    std::vector<std::string> args;
    for (std::string arg; std::getline(in, arg, '\0');) args.push_back(arg);
    return args;
}

// Ends every process that has `argument` among its arguments: a panel nobody could answer.
inline void StopProcessesWithArgument(const std::string& argument) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
        pid_t pid = static_cast<pid_t>(std::atoi(entry.path().filename().c_str()));
        if (pid <= 0) continue;
        std::vector<std::string> arguments = ArgumentsOf(pid);
        if (std::find(arguments.begin(), arguments.end(), argument) != arguments.end()) kill(pid, SIGTERM);
    }
}

// An Xvfb server on a free display, open to every local user, stopped with the object.
class VirtualDisplay {
public:
    VirtualDisplay() {
        int fds[2];
        if (pipe(fds) != 0) {
            ADD_FAILURE() << "pipe failed";
            return;
        }
        pid_ = fork();
        if (pid_ == 0) {
            close(fds[0]);
            std::string fd = std::to_string(fds[1]);
            execlp("Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-ac", "-nolisten", "tcp", "-screen", "0", "1024x768x24",
                   static_cast<char*>(nullptr));
            _exit(127);
        }
        close(fds[1]);
        std::string number;
        char c;
        while (read(fds[0], &c, 1) == 1 && c != '\n') number += c;
        close(fds[0]);
        if (number.empty())
            ADD_FAILURE() << "Xvfb did not start (package xvfb, scripts/packages)";
        else
            name_ = ":" + number;
    }
    ~VirtualDisplay() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
    }
    VirtualDisplay(const VirtualDisplay&) = delete;
    VirtualDisplay& operator=(const VirtualDisplay&) = delete;

    const std::string& name() const { return name_; }

    // xdotool on this display.
    std::string Xdotool(std::vector<std::string> args, int* status = nullptr) const {
        args.insert(args.begin(), {"timeout", "20", "xdotool"});
        return RunProgram(args, {"DISPLAY=" + name_}, status);
    }

    // The window whose title is exactly `title` (waits up to 20 seconds); empty when none shows.
    std::string WaitForWindow(const std::string& title) const {
        std::string pattern = "^";
        for (char c : title) {
            if (std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos) pattern += '\\';
            pattern += c;
        }
        pattern += "$";
        int status = 0;
        std::string found = Xdotool({"search", "--sync", "--limit", "1", "--name", pattern}, &status);
        return status == 0 ? found : std::string();
    }

    pid_t WindowProcess(const std::string& window) const {
        return static_cast<pid_t>(std::atoi(Xdotool({"getwindowpid", window}).c_str()));
    }

    // Gives the window the keyboard focus and types the keys.
    void PressKeys(const std::string& window, std::vector<std::string> keys) const {
        Xdotool({"windowfocus", "--sync", window});
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        keys.insert(keys.begin(), "key");
        Xdotool(keys);
    }

private:
    pid_t pid_ = -1;
    std::string name_;
};

}  // namespace qvk::test
