#include "framework/privileges/removal_rights.h"

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>

#include "framework/base/identity.h"
#include "framework/log/logging.h"
#include "framework/privileges/setuid.h"
#include "platform/account.h"

bool QVK_Framework_MayRemovePackage() {
    if (!QVK_Framework_SetuidStartingUser || *QVK_Framework_SetuidStartingUser == 0) return true;
    std::uint32_t user = *QVK_Framework_SetuidStartingUser;
    std::optional<qvk::platform::Account> account = qvk::platform::LookUpAccount(user);
    if (account && qvk::platform::IsAdministrator(*account)) return true;
    std::string application = ApplicationFolder();
    struct stat status {};
    if (lstat(application.c_str(), &status) == 0 && status.st_uid == user) return true;
    QVK_Framework_Log_Internal("QVK_Framework_MayRemovePackage", "../../Framework/Framework/RemovalRights", __LINE__, 2,
                               "Not removing the package for uid %u: neither an administrator nor the owner of %@",
                               user, application);
    return false;
}
