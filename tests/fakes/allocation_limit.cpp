// Lets an allocation above 1 GiB fail, as it may on a machine without the memory, in the
// builds with a sanitizer (which otherwise end the program at it). Elsewhere the system
// decides, so a test that uses this accepts both.
extern "C" {

const char *__asan_default_options()
{
    return "max_allocation_size_mb=1024:allocator_may_return_null=1";
}

const char *__tsan_default_options()
{
    return "max_allocation_size_mb=1024:allocator_may_return_null=1";
}
}
