#include "framework/privileges/standard_descriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

void QVK_Framework_OpenStandardDescriptors() {
    if (getuid() != 0 && geteuid() != 0) return;
    // The lowest free descriptor is taken first, so each open fills the gap it was made for.
    for (int fd = 0; fd <= 2; ++fd)
        if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDWR) != fd) std::abort();
}
