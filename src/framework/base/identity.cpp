#include "framework/base/identity.h"

#include "platform/bundle.h"
#include "platform/path.h"
#include "platform/service.h"

std::string QVK_Framework_ApplicationName;
const char* QVK_Framework_Project_Name = "Launcher";
const char* QVK_Framework_Project_Name_Application = "Launcher";
const char* QVK_Framework_Project_Name_Bundle = "Launcher";
std::string QVK_Framework_Project_Identifier;
const char* QVK_Framework_BuildID_App = nullptr;

std::string ApplicationFolder() {
    return qvk::platform::ParentFolder(qvk::platform::Use<qvk::platform::Bundle>().MainBundlePath());
}
