// SPDX-License-Identifier: Apache-2.0
// What the sanitizers are told, so that a finding's input is all it takes to repeat it. The
// interface compiler defines each enum's list of values in a header, which under clang is a
// definition per file.
extern "C" const char* __asan_default_options() {
    return "detect_odr_violation=0:detect_stack_use_after_return=1";
}
extern "C" const char* __ubsan_default_options() {
    return "print_stacktrace=1";
}
