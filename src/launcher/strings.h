// The texts shown to the user: a table keyed by "<language>:<string key>", filled from the optional
// "LauncherStrings" file among the launcher's resources and completed by built-in English, French
// and German texts; a text is looked up in the languages of `Localizations`, ending with English.
#pragma once

#include <string>

#include "platform/value.h"

// One built-in text: a language code and the text as ISO Latin-1 bytes. A list ends with a null
// language.
struct MyMessage {
    const char* language;
    const char* text;
};

// The built-in texts of one string key. The table ends with a null key.
struct MyMessageList {
    const char* key;
    const MyMessage* messages;
};

extern const MyMessageList MyMessages[];

// Loads the strings file and the built-in texts, then settles the languages to try.
void InitStrings();
// Builds the table once and returns it.
qvk::Dictionary& LoadDictionary();
// Builds the list of languages once.
void InitLocalizations();
// Adds the built-in texts of one key; a text the table already holds (from the file) stays.
void AddMessages(const char* key, const MyMessage* list);
// The text of the first language in `Localizations` that has one; null when none has. The table
// keeps the result.
const qvk::Value* GetLocalizedString(const char* key);
// The localized text for showing; the key itself, logged, when no language has a text.
std::string LocalizedText(const char* key);

// Forgets both tables, so that a test can build them again.
void ForgetStringsForTesting();
