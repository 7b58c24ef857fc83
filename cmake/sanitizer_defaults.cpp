// The sanitizer runtimes' options, built into every program of the sanitizer build: the end-to-end
// harness starts the Launcher with a cleared environment and the Launcher keeps only an allow-list
// of the variables it is given, so options from the environment cannot be relied on there (where
// ASAN_OPTIONS or UBSAN_OPTIONS do arrive, they add to these).

// The simulated USB bus is a preloaded library, so the address sanitizer's runtime is not the
// first library loaded. No leak check: the program keeps its process-long objects to the end on
// purpose, GLib keeps per-process caches, and a test's forked child holds its parent's objects
// without the threads that refer to them.
extern "C" __attribute__((visibility("default"), used)) const char* __asan_default_options() {
    return "verify_asan_link_order=0:halt_on_error=1:detect_leaks=0";
}

extern "C" __attribute__((visibility("default"), used)) const char* __ubsan_default_options() {
    return "halt_on_error=1:print_stacktrace=1";
}
