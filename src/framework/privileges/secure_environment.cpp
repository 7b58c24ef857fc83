#include "framework/privileges/secure_environment.h"

#include <unistd.h>

#include <cstdlib>
#include <initializer_list>

void QVK_Framework_SecureEnvironment() {
    if (getuid() != 0 && geteuid() != 0) return;
    setenv("PATH", "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", 1);
    for (const char* name : {"IFS", "ENV", "BASH_ENV", "CDPATH"}) unsetenv(name);
}
