/// @file
/// What ThreadSanitizer has to know about the libraries that this program stands on: they lock with
/// futexes of their own, which it does not see. What they do among themselves is left out; what
/// this program's own code does is not.

#if defined(__SANITIZE_THREAD__)
#define JOVU_SIM_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define JOVU_SIM_TSAN 1
#endif
#endif

#ifdef JOVU_SIM_TSAN

extern "C" const char* __tsan_default_suppressions();  // NOLINT(bugprone-reserved-identifier)

extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
    return "called_from_lib:libglib-2.0.so\n"
           "called_from_lib:libgobject-2.0.so\n"
           "called_from_lib:libgio-2.0.so\n"
           "called_from_lib:libumockdev.so\n";
}

#endif
