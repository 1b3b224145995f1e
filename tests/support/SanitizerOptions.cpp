// What the sanitizers cannot know about this code base.
#if defined(__SANITIZE_ADDRESS__)

// A cancelled thread leaves marks of its frames on the stack, which the address sanitizer then meets when it
// removes its own signal stack at the end of the thread.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options();
const char* __asan_default_options() {
  return "use_sigaltstack=0";
}

#endif
