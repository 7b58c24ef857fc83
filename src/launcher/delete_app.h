// Deleting the installed application, and files or trees in general, without following links.
#pragma once

#include <cstdint>
#include <string>

// Deletes the folder that holds the launcher bundle: the installed application.
void Launcher_DeleteApp();

// Deletes a file, a link (never what it points to) or a whole folder tree. Entries that cannot be
// removed are passed over. The result of the last removal: 0, or -1 with errno set; -1 as well
// when the path has no status.
std::int32_t Launcher_Delete(const std::string& path);
