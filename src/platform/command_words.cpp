#include "platform/command_words.h"

#include <algorithm>
#include <array>

namespace qvk::platform {

namespace {

// Characters that mean nothing to the shell outside quotes.
bool IsPlain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("/._-+,:@%").find(c) != std::string_view::npos;
}

// Names /bin/sh runs itself rather than searching PATH for them.
bool IsShellWord(std::string_view word) {
    static constexpr std::array<std::string_view, 43> kWords{
        ".",    "alias",    "bg",      "break", "case",  "cd",   "chdir", "command", "continue", "do",     "done",
        "echo", "elif",     "else",    "esac",  "eval",  "exec", "exit",  "export",  "false",    "fc",     "fg",
        "fi",   "for",      "getopts", "hash",  "if",    "in",   "jobs",  "kill",    "local",    "printf", "pwd",
        "read", "readonly", "return",  "set",   "shift", "test", "then",  "times",   "trap",     "true"};
    static constexpr std::array<std::string_view, 9> kMoreWords{"type",  "ulimit", "umask", "unalias", "unset",
                                                                "until", "wait",   "while", ":"};
    return std::find(kWords.begin(), kWords.end(), word) != kWords.end() ||
           std::find(kMoreWords.begin(), kMoreWords.end(), word) != kMoreWords.end();
}

}  // namespace

std::optional<std::vector<std::string>> SimpleCommandWords(std::string_view command) {
    std::vector<std::string> words;
    std::size_t i = 0;
    for (;;) {
        while (i < command.size() && (command[i] == ' ' || command[i] == '\t')) ++i;
        if (i == command.size()) break;
        std::string word;
        while (i < command.size() && command[i] != ' ' && command[i] != '\t') {
            char c = command[i++];
            if (c == '"') {
                std::size_t end = command.find('"', i);
                if (end == std::string_view::npos) return std::nullopt;
                std::string_view inside = command.substr(i, end - i);
                if (inside.find_first_of(std::string_view("$`\\\0", 4)) != std::string_view::npos) return std::nullopt;
                word += inside;
                i = end + 1;
            } else if (IsPlain(c) || (c == '=' && !words.empty())) {
                word += c;
            } else {
                return std::nullopt;
            }
        }
        if (words.empty() && (word.empty() || IsShellWord(word))) return std::nullopt;
        words.push_back(std::move(word));
    }
    if (words.empty()) return std::nullopt;
    return words;
}

}  // namespace qvk::platform
