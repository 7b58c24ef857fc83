// The locale variables that name the user's languages, set for one test and restored afterwards.
#pragma once

#include <cstdlib>
#include <map>
#include <optional>
#include <string>

namespace qvk::test {

class LanguageEnvironment {
public:
    // Starts with none of LANGUAGE, LC_ALL, LC_MESSAGES and LANG set.
    LanguageEnvironment() {
        for (const char* name : kNames) {
            const char* value = std::getenv(name);
            saved_[name] = value ? std::optional<std::string>(value) : std::nullopt;
            unsetenv(name);
        }
    }
    ~LanguageEnvironment() {
        for (const auto& [name, value] : saved_) {
            if (value)
                setenv(name.c_str(), value->c_str(), 1);
            else
                unsetenv(name.c_str());
        }
    }
    LanguageEnvironment(const LanguageEnvironment&) = delete;
    LanguageEnvironment& operator=(const LanguageEnvironment&) = delete;

    void Set(const char* name, const char* value) { setenv(name, value, 1); }

private:
    static constexpr const char* kNames[] = {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"};
    std::map<std::string, std::optional<std::string>> saved_;
};

}  // namespace qvk::test
