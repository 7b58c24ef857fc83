// Turns a start through the set-user-id super-user executable into a process whose real and
// effective user are both the super-user, and tells which user started it.
#pragma once

#include <cstdint>

// The language given with "--lang" to the privileged run; null when none was given.
extern const char* QVK_PreferredLanguage;

// The id of the user the program acts for. A user's start through the set-user-id executable
// re-executes the program as the super-user with "--uid" and "--lang" appended and does not return;
// the privileged run reads them back. 0 when the program could not gain privileges.
std::uint32_t QVK_Framework_HandleSetuid(int argc, char** argv);
