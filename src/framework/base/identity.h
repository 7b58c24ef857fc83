// The enclosing application's identity, filled once at start-up and read by the whole program.
#pragma once

#include <string>

// The texts are empty where the application's property list lacks them, so that no name, path or
// command is built from a missing text.
extern std::string QVK_Framework_ApplicationName;
extern const char* QVK_Framework_Project_Name;
extern const char* QVK_Framework_Project_Name_Application;
extern const char* QVK_Framework_Project_Name_Bundle;
extern std::string QVK_Framework_Project_Identifier;
// Null until main sets the built-in build id.
extern const char* QVK_Framework_BuildID_App;

// The folder that holds the running launcher bundle: the installed application. Its drivers,
// resources and property list lie inside it, and owner and mode changes never leave it.
std::string ApplicationFolder();
