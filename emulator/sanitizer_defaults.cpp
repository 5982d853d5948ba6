// Defaults for the sanitizers, read by their runtimes when a program that contains the
// emulator's media code or the GStreamer element is built with them; without a sanitizer nothing
// calls these.
//
// GLib, GStreamer and its plugins and the HTTP server library are system libraries built
// without instrumentation. GLib synchronises with futexes of its own, which ThreadSanitizer does
// not see, so the memory functions these libraries call through the sanitizer's interceptors
// would be reported as races among themselves. Accesses from our own code are still checked.
//
// LeakSanitizer: GLib is built without frame pointers, and only the slow unwinder follows an
// allocation made inside GLib back to its callers. One global of GLib is suppressed, nothing of
// GStreamer, the element, the emulator or the library: GLib's quark table, whose blocks GLib drops
// without freeing when the table grows (lookups read it without a lock). Its first block is
// allocated by GLib's library constructor, a function without a symbol, while the program is
// loaded, so only the dynamic loader's _dl_init names it (that entry covers whatever a library's
// constructor allocates while it is loaded; none of ours allocates there). Its later blocks are
// allocated where the table grows.

extern "C" const char* __tsan_default_options() { return "ignore_noninstrumented_modules=1"; }

extern "C" const char* __lsan_default_options() { return "fast_unwind_on_malloc=0"; }

extern "C" const char* __lsan_default_suppressions() {
  return "leak:_dl_init\n"
         "leak:g_quark_from_static_string\n"
         "leak:g_quark_from_string\n"
         "leak:g_intern_static_string\n"
         "leak:g_intern_string\n";
}
