#include "framework/basic/tidyup.h"

#include "framework/log/logging.h"

namespace {
// The participants visited; fixed, so that a longer table needs a deliberate change here too.
constexpr std::size_t kTidyupCount = 1;
}  // namespace

const std::array<const char*, 1> TidyupClasses = {"QVK_Framework_Autostart_Tidyup"};

void TidyupClass(const char* className, bool flag) {
    QVK_Framework_Class* cls = QVK_Framework_ClassNamed(className);
    if (!cls) return;
    auto* participant = dynamic_cast<QVK_Framework_Tidyup_Protocol*>(cls);
    if (!participant) {
        QVK_Framework_Log_Internal("TidyupClass", "Tidyup", __LINE__, 2, "%s does not take part in tidy-up", className);
        return;
    }
    participant->QVK_Framework_Tidyup_Action(flag);
}

void QVK_Framework_Tidyup(bool flag) {
    static_assert(kTidyupCount <= TidyupClasses.size());
    for (std::size_t i = 0; i < kTidyupCount; ++i) TidyupClass(TidyupClasses[i], flag);
}
