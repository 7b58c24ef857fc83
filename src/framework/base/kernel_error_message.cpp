#include "framework/base/kernel_error_message.h"

#include "platform/format.h"
#include "platform/io_return.h"
#include "platform/thread_dictionary.h"

const char* QVK_Framework_KernelError_Message(std::int64_t code) {
    // A code is named only as the sign-extended 32-bit value the registry returns.
    if (code == qvk::platform::kIOReturnNoDevice) return "kIOReturnNoDevice";
    if (code == qvk::platform::kIOReturnNotOpen) return "kIOReturnNotOpen";
    // Kept in the thread's dictionary, which replaces the previous text of this thread.
    qvk::Value& kept = qvk::platform::CurrentThreadDictionary()["Quorvik Kernel Error Message"];
    kept = qvk::Value(qvk::Format("%08lx", code));
    return kept.AsString()->c_str();
}
