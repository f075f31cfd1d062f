// Part of builds with the address sanitiser only: what it should know about the libraries that this program loads.

extern "C" {

/// GLib is built without frame pointers: without unwinding in full, all its allocations look alike.
__attribute__((visibility("default"))) const char* __asan_default_options()
{
    return "fast_unwind_on_malloc=0";
}

/// GLib allocates when it is loaded, and keeps the address in a form that the leak check does not recognise. Fontconfig
/// never gives back what it read from its configuration, and the H.265 encoder and its plug-in forget some of their
/// tables.
__attribute__((visibility("default"))) const char* __lsan_default_suppressions()
{
    return "leak:_dl_init\n"
           "leak:libfontconfig\n"
           "leak:x265\n";
}
}
