// Defaults for the sanitizers, read by their runtimes when a program that contains the
// emulator's media code is built with them; without a sanitizer nothing calls these.
//
// GLib, GStreamer and its plugins and the HTTP server library are system libraries built
// without instrumentation. GLib synchronises with futexes of its own, which ThreadSanitizer does
// not see, so the memory functions these libraries call through the sanitizer's interceptors
// would be reported as races among themselves. Accesses from our own code are still checked.
// GLib also keeps buffers allocated by its library constructors for good; built without frame
// pointers, it leaves such a leak no caller beyond g_malloc, which is all that can name it.

extern "C" const char* __tsan_default_options() { return "ignore_noninstrumented_modules=1"; }

extern "C" const char* __lsan_default_suppressions() { return "leak:libglib-2.0.so\n"; }
