// The user's language preferences come from the locale environment: the colon list of LANGUAGE,
// then LC_ALL, LC_MESSAGES and LANG.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "platform/bundle.h"
#include "platform/property_list.h"

namespace qvk::platform {

namespace {

bool Contains(const std::vector<std::string>& list, const std::string& item) {
    return std::find(list.begin(), list.end(), item) != list.end();
}

void AddOnce(std::vector<std::string>& list, std::string item) {
    if (!Contains(list, item)) list.push_back(std::move(item));
}

// "fr_FR.UTF-8@euro" is tried as "fr_FR", then as "fr"; "C" and "POSIX" name no language.
void AddLocale(std::vector<std::string>& languages, std::string_view value) {
    std::string_view name = value.substr(0, value.find_first_of(".@"));
    if (name.empty() || name == "C" || name == "POSIX") return;
    AddOnce(languages, std::string(name));
    auto territory = name.find('_');
    if (territory != std::string_view::npos && territory > 0)
        AddOnce(languages, std::string(name.substr(0, territory)));
}

std::vector<std::string> UserLanguages() {
    std::vector<std::string> languages;
    if (const char* list = std::getenv("LANGUAGE")) {
        std::string_view rest(list);
        while (!rest.empty()) {
            auto colon = rest.find(':');
            AddLocale(languages, rest.substr(0, colon));
            rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
        }
    }
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"})
        if (const char* value = std::getenv(name)) AddLocale(languages, value);
    return languages;
}

// The available codes that the user names, in the user's order.
std::vector<std::string> OrderedByUser(const std::vector<std::string>& available) {
    std::vector<std::string> ordered;
    for (const std::string& language : UserLanguages())
        if (Contains(available, language)) AddOnce(ordered, language);
    return ordered;
}

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

// The languages of the folder's "<language>.lproj" sub-folders.
std::vector<std::string> LprojLanguages(const std::string& resources) {
    std::vector<std::string> languages;
    std::unique_ptr<DIR, DirCloser> dir(opendir(resources.c_str()));
    if (!dir) return languages;
    constexpr std::string_view kSuffix = ".lproj";
    while (dirent* entry = readdir(dir.get())) {
        std::string_view name(entry->d_name);
        if (name.size() <= kSuffix.size() || !name.ends_with(kSuffix)) continue;
        struct stat st {};
        if (stat((resources + "/" + entry->d_name).c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) continue;
        languages.emplace_back(name.substr(0, name.size() - kSuffix.size()));
    }
    std::sort(languages.begin(), languages.end());
    return languages;
}

}  // namespace

std::vector<std::string> Bundle::PreferredLocalizations() {
    std::string contents = MainBundlePath() + "/Contents";
    std::vector<std::string> available = LprojLanguages(contents + "/Resources");
    std::vector<std::string> preferred = OrderedByUser(available);
    if (!preferred.empty()) return preferred;
    if (auto info = ReadPropertyList(contents + "/Info.plist")) {
        const std::string* region = (*info)["CFBundleDevelopmentRegion"].AsString();
        if (region && Contains(available, *region)) preferred.push_back(*region);
    }
    return preferred;
}

std::vector<std::string> Bundle::PreferredLocalizationsFrom(const std::vector<std::string>& available) {
    std::vector<std::string> preferred = OrderedByUser(available);
    if (preferred.empty() && Contains(available, "en")) preferred.push_back("en");
    return preferred;
}

}  // namespace qvk::platform
