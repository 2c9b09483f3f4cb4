// What the leak detector of the address sanitizer has to know; without it these are never called.

// NOLINTBEGIN(bugprone-reserved-identifier)

/// GLib has no frame pointers: it takes the slow way to find out who has allocated.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
    return "fast_unwind_on_malloc=0:malloc_context_size=8";
}

/// What libraries take when they are loaded is theirs: GLib leaves the first table of interned
/// strings to readers without a lock when it makes a larger one. GStreamer's parser forgets the
/// values of arrays in a text that turns out to be none.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
    return "leak:call_init\nleak:g_value_init\n";
}

extern "C" __attribute__((visibility("default"))) const char* __lsan_default_options() {
    return "print_suppressions=0";
}

// NOLINTEND(bugprone-reserved-identifier)
