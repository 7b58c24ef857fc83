#include "framework/base/kernel_error_message.h"

#include "platform/format.h"
#include "platform/thread_dictionary.h"

namespace {
constexpr std::int64_t kIOReturnNoDevice = static_cast<std::int32_t>(0xE00002C0);
constexpr std::int64_t kIOReturnNotOpen = static_cast<std::int32_t>(0xE00002CD);
}  // namespace

const char* QVK_Framework_KernelError_Message(std::int64_t code) {
    if (code == kIOReturnNoDevice) return "kIOReturnNoDevice";
    if (code == kIOReturnNotOpen) return "kIOReturnNotOpen";
    // Kept in the thread's dictionary, which replaces the previous text of this thread.
    qvk::Value& kept = qvk::platform::CurrentThreadDictionary()["Quorvik Kernel Error Message"];
    kept = qvk::Value(qvk::Format("%08lx", code));
    return kept.AsString()->c_str();
}
