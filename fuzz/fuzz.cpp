// Part of every fuzz target: how it runs.
#include "fuzz/fuzz.h"

#include <stdio.h>

// Large allocations fail, as they do where memory is short: bytes from outside name sizes
// up to gigabytes, and both ways out are to be seen. Freed memory is kept from reuse, but
// not so much of it that the machine feels it. A target with other needs has its own. (Not
// of the function below: the sanitizer has one that is weak too, and may come first.)
__attribute__((weak)) const char *fuzz_sanitizer_options()
{
    static_assert(FUZZ_ALLOCATION_MAX == 64u << 20);
    return "allocator_may_return_null=1:max_allocation_size_mb=64:quarantine_size_mb=16:"
           "detect_stack_use_after_return=0:allocator_release_to_os_interval_ms=-1";
}

extern "C" const char *__asan_default_options()
{
    return fuzz_sanitizer_options();
}

// What the product prints is part of no report.
extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    return freopen("/dev/null", "w", stdout) ? 0 : 1;
}
