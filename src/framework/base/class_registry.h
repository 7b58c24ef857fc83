// Classes found by name at run time, as the Mac's runtime finds them: a program built on the
// framework registers a class under a fixed name and the framework looks it up.
#pragma once

#include <string>

class QVK_Framework_Class {
public:
    virtual ~QVK_Framework_Class() = default;
};

// The registry does not own the class; it must live as long as the process.
void QVK_Framework_RegisterClass(const std::string& name, QVK_Framework_Class& cls);
void QVK_Framework_UnregisterClass(const std::string& name);
QVK_Framework_Class* QVK_Framework_ClassNamed(const std::string& name);
