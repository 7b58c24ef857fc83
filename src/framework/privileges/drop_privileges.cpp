// Preferences are read from the user's files on every access, so there are no cached standard
// defaults to reset around a change of user; and panels are processes of their own, so no window
// needs to be opened before the change.
#include "framework/privileges/drop_privileges.h"

#include "framework/base/system_version.h"
#include "framework/log/logging.h"
#include "platform/process_identity.h"
#include "platform/service.h"

void QVK_Framework_DropPrivileges() {
    constexpr const char* kSource = "../../Framework/Framework/DropPrivileges";
    auto& process = qvk::platform::Use<qvk::platform::ProcessIdentity>();
    QVK_Framework_Log_Internal("QVK_Framework_DropPrivileges", kSource, 16, 5, nullptr);
    std::uint32_t uid = process.EffectiveUserID();
    if (uid == 0) uid = process.RealUserID();
    if (uid != 0) process.BecomeUser(uid);
    QVK_Framework_Log_Internal("QVK_Framework_DropPrivileges", kSource, 29, 5, "real uid: %d, effective uid: %d",
                               static_cast<int>(process.RealUserID()), static_cast<int>(process.EffectiveUserID()));
}

qvk::platform::AlertPanel* QVK_Framework_SharedAppAndDropPrivileges(qvk::platform::AlertPanel& applicationClass,
                                                                    std::uint32_t userId) {
    auto& process = qvk::platform::Use<qvk::platform::ProcessIdentity>();
    if (QVK_Framework_SystemVersion() < 0x1060) {
        std::uint32_t real = process.RealUserID();
        if (real != 0) process.BecomeUser(real);
        applicationClass.SharedApplication(real);
        return &applicationClass;
    }
    applicationClass.SharedApplication(userId);
    if (userId != 0) process.BecomeUser(userId);
    return nullptr;
}
