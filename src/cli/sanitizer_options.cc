// Default run-time options of the sanitizers, linked into the executables of
// a BRINDLE_SANITIZE build only. They make every report fatal with exit
// status 86, a status brindle never uses itself, so that a test expecting
// brindle's own failure (status 1) cannot mistake a report for it, and make
// UndefinedBehaviorSanitizer print the stack of what it found. The tests run
// brindle with an environment of PATH only; ASAN_OPTIONS, UBSAN_OPTIONS and
// LSAN_OPTIONS, where given, still override these defaults.

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier): the sanitizer run-time looks
// these hooks up by their reserved names.
__attribute__((used)) const char* __asan_default_options() {
  return "detect_leaks=1:halt_on_error=1:abort_on_error=0:exitcode=86:"
         "detect_stack_use_after_return=1:check_initialization_order=1:"
         "strict_init_order=1:strict_string_checks=1";
}

__attribute__((used)) const char* __lsan_default_options() {
  return "exitcode=86";
}

__attribute__((used)) const char* __ubsan_default_options() {
  return "print_stacktrace=1:halt_on_error=1:exitcode=86";
}
// NOLINTEND(bugprone-reserved-identifier)

}  // extern "C"
