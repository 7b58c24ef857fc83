#include "launcher/strings.h"

#include <optional>
#include <string>

#include "framework/base/system_version.h"
#include "framework/base/text_encoding.h"
#include "framework/log/logging.h"
#include "framework/privileges/setuid.h"
#include "platform/bundle.h"
#include "platform/format.h"
#include "platform/property_list.h"
#include "platform/service.h"

namespace {

// The fixed wording of the product, spelling and final stops included. Bytes are ISO Latin-1:
// \350 is e grave, \351 e acute, \344 a umlaut.
constexpr MyMessage DeinstallMessages[] = {
    {"en", "%@ has been deinstalled, but some parts remain in the system until the next restart"},
    {"fr",
     "%@ a bien \351t\351 d\351sinstall\351, cependant certains \351l\351ments subsisteront jusqu'au prochain "
     "d\351marrage."},
    {"de", "%@ wurde deinstalliert, aber einige Komponenten verbleiben bis zum n\344chsten Reboot im System"},
    {nullptr, nullptr},
};

constexpr MyMessage MovementMessages[] = {
    {"en", "The %@ installation has been successfully moved to the new location"},
    {"fr", "Succ\350s de la d\351sinstallation de %@"},
    {"de", "%@ wurde an den neuen Platz verschobenm"},
    {nullptr, nullptr},
};

constexpr MyMessage DeinstallQueryMessages[] = {
    {"en", "Do you really want to deinstall %@?"},
    {nullptr, nullptr},
};

constexpr MyMessage DeinstallQueryYes[] = {
    {"en", "Yes"},
    {nullptr, nullptr},
};

constexpr MyMessage DeinstallQueryNo[] = {
    {"en", "No"},
    {nullptr, nullptr},
};

std::optional<qvk::Dictionary> Strings;
std::optional<qvk::Array> Localizations;

}  // namespace

const MyMessageList MyMessages[] = {
    {"STRING_LAUNCHER_MESSAGE_DEINSTALL", DeinstallMessages},
    {"STRING_LAUNCHER_MESSAGE_MOVEMENT", MovementMessages},
    {"STRING_LAUNCHER_CONFIRM_DEINSTALL_QUERY", DeinstallQueryMessages},
    {"STRING_LAUNCHER_CONFIRM_DEINSTALL_YES", DeinstallQueryYes},
    {"STRING_LAUNCHER_CONFIRM_DEINSTALL_NO", DeinstallQueryNo},
    {nullptr, nullptr},
};

void AddMessages(const char* key, const MyMessage* list) {
    for (const MyMessage* message = list; message->language; ++message) {
        std::string combined = qvk::Format("%@:%s", message->language, key);
        if (Strings->contains(combined)) continue;
        Strings->emplace(std::move(combined), qvk::Value(QVK_Framework_DecodeLatin1(message->text)));
    }
}

qvk::Dictionary& LoadDictionary() {
    if (Strings) return *Strings;
    std::string resources = qvk::platform::Use<qvk::platform::Bundle>().MainBundlePath() + "/Contents/Resources";
    std::string path = qvk::Format("%@/LauncherStrings", resources);
    std::optional<qvk::Value> loaded = qvk::platform::ReadPropertyList(path);
    if (loaded && !loaded->IsDictionary()) loaded.reset();
    QVK_Framework_Log_Internal("LoadDictionary", "Strings", 113, 5, "%@ -> %@", path,
                               loaded ? &*loaded : static_cast<const qvk::Value*>(nullptr));
    Strings = loaded ? std::move(*loaded->AsDictionary()) : qvk::Dictionary();
    for (const MyMessageList* entry = MyMessages; entry->key; ++entry) AddMessages(entry->key, entry->messages);
    return *Strings;
}

void InitLocalizations() {
    if (Localizations) return;
    Localizations.emplace();
    if (QVK_Framework_SystemVersion() < 0x1060) {
        qvk::Set codes;
        for (const auto& [key, text] : LoadDictionary()) {
            auto colon = key.find(':');
            if (colon != std::string::npos) codes.Add(qvk::Value(key.substr(0, colon)));
        }
        std::vector<std::string> available;
        for (const qvk::Value& code : codes.members) available.push_back(*code.AsString());
        for (std::string& language : qvk::platform::Use<qvk::platform::Bundle>().PreferredLocalizationsFrom(available))
            Localizations->emplace_back(std::move(language));
    }
    if (QVK_PreferredLanguage) Localizations->emplace_back(qvk::Format("%s", QVK_PreferredLanguage));
    Localizations->emplace_back("en");
    QVK_Framework_Log_Internal("InitLocalizations", "Strings", 171, 5, "Localizations: %@", qvk::Value(*Localizations));
}

void InitStrings() {
    LoadDictionary();
    InitLocalizations();
}

const qvk::Value* GetLocalizedString(const char* key) {
    if (!Strings || !Localizations) return nullptr;
    for (const qvk::Value& language : *Localizations) {
        auto found = Strings->find(qvk::Format("%@:%s", language, key));
        if (found != Strings->end()) return &found->second;
    }
    return nullptr;
}

std::string LocalizedText(const char* key) {
    const qvk::Value* text = GetLocalizedString(key);
    if (text && text->IsString()) return *text->AsString();
    QVK_Framework_Log_Internal("LocalizedText", "Strings", 190, 2, "No text for %s: %@", key, text);
    return key;
}

void ForgetStringsForTesting() {
    Strings.reset();
    Localizations.reset();
}
