// The locale variables that name the user's languages, set for one test and restored afterwards.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace qvk::test {

// Starts with none of LANGUAGE, LC_ALL, LC_MESSAGES and LANG set.
struct LanguageEnvironment {
    LanguageEnvironment() {
        for (int i = 0; i < 4; ++i) {
            if (const char* value = std::getenv(kNames[i])) saved[i] = value;
            unsetenv(kNames[i]);
        }
    }
    ~LanguageEnvironment() {
        for (int i = 0; i < 4; ++i) saved[i] ? setenv(kNames[i], saved[i]->c_str(), 1) : unsetenv(kNames[i]);
    }
    void Set(const char* name, const char* value) { setenv(name, value, 1); }

    static constexpr const char* kNames[] = {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"};
    std::optional<std::string> saved[4];
};

}  // namespace qvk::test
