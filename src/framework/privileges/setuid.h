// Turns a start through the set-user-id super-user executable into a process whose real and
// effective user are both the super-user, and tells which user started it.
#pragma once

#include <cstdint>
#include <optional>

// The language given with "--lang" to the privileged run; null when none was given.
extern const char* QVK_PreferredLanguage;

// The user who started the program through the set-user-id executable, as QVK_Framework_HandleSetuid
// settled it: the real user below 10.6, from 10.6 on the user the privileged run was handed over
// for. None for a start by the super-user itself and for one that gained no privileges.
extern std::optional<std::uint32_t> QVK_Framework_SetuidStartingUser;

// The id of the user the program acts for. A user's start through the set-user-id executable
// re-executes the program as the super-user, without the user's groups, in the user's own home
// folder, with "--uid" and "--lang" appended in place of any the user gave, and does not return;
// the privileged run reads them back. 0 when the program could not gain privileges.
std::uint32_t QVK_Framework_HandleSetuid(int argc, char** argv);
