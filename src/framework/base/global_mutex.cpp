#include "framework/base/global_mutex.h"

std::unique_ptr<std::recursive_mutex> QVK_Framework_GlobalMutex;

void QVK_Framework_CreateGlobalMutex() { QVK_Framework_GlobalMutex = std::make_unique<std::recursive_mutex>(); }
