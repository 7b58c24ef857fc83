// Stands in for /usr/bin/open in the comparison: its first act is to read the monotonic clock;
// then it appends "<seconds>.<nanoseconds> <application>" to the marks pipe and ends. Linked
// statically, so that nothing but the kernel's own work lies between exec and that reading.
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

int main(int argc, char** argv) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    // A fixed place: the Launcher gives its children no variable of the caller's.
    int fd = open("/tmp/qvk-bench-marks", O_WRONLY | O_APPEND | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return 1;
    char line[512];
    int n = std::snprintf(line, sizeof line, "%lld.%09ld %s\n", static_cast<long long>(now.tv_sec), now.tv_nsec,
                          argc > 2 ? argv[2] : "?");
    // One write below PIPE_BUF: lines of concurrent markers never mix.
    if (n > 0 && n < static_cast<int>(sizeof line) && write(fd, line, static_cast<std::size_t>(n)) != n) return 1;
    close(fd);
    return 0;
}
