// Settings built into every instrumented program. The end-to-end tests start
// ferrow with a cleared environment, so *SAN_OPTIONS set by the caller do not
// reach it; these defaults still make the first report end the process with
// an exit code that ferrow itself never uses. Variables set by the caller
// are read after these and win.

// 86: outside ferrow's own exit codes, so a test comparing exit codes fails.
#define FERROW_SANITIZER_EXIT "exitcode=86"

extern "C" {

const char* __asan_default_options() {
  return "halt_on_error=1:abort_on_error=0:detect_leaks=1:"
         "check_initialization_order=1:detect_stack_use_after_return=1:"
         "strict_init_order=1:" FERROW_SANITIZER_EXIT;
}

const char* __ubsan_default_options() {
  return "halt_on_error=1:print_stacktrace=1:" FERROW_SANITIZER_EXIT;
}

const char* __lsan_default_options() { return FERROW_SANITIZER_EXIT; }

}  // extern "C"
