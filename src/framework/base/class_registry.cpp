#include "framework/base/class_registry.h"

#include <map>
#include <mutex>

namespace {

std::mutex registryLock;

std::map<std::string, QVK_Framework_Class*>& Registry() {
    static std::map<std::string, QVK_Framework_Class*> registry;
    return registry;
}

}  // namespace

void QVK_Framework_RegisterClass(const std::string& name, QVK_Framework_Class& cls) {
    std::lock_guard lock(registryLock);
    Registry()[name] = &cls;
}

void QVK_Framework_UnregisterClass(const std::string& name) {
    std::lock_guard lock(registryLock);
    Registry().erase(name);
}

QVK_Framework_Class* QVK_Framework_ClassNamed(const std::string& name) {
    std::lock_guard lock(registryLock);
    auto it = Registry().find(name);
    return it == Registry().end() ? nullptr : it->second;
}
