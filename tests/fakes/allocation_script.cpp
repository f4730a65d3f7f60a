#include "tests/fakes/allocation_script.h"

#include <errno.h>
#include <mutex>
#include <new>
#include <pthread.h>
#include <stdio.h>

static std::mutex guard; // of the script
static bool (*script)(const allocation &);

void allocation_script_start(bool (*fails)(const allocation &))
{
    std::lock_guard<std::mutex> held(guard);
    script = fails;
}

void allocation_script_stop()
{
    allocation_script_start(nullptr);
}

static bool refused(allocation_kind kind, size_t count, size_t size)
{
    std::lock_guard<std::mutex> held(guard);
    return script != nullptr && script({kind, count, size});
}

// The names that the linker's --wrap option gives to the callers' end and to the real one.
extern "C" {

void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size)
{
    return refused(ALLOCATED_MALLOC, 1, size) ? nullptr : __real_malloc(size);
}

void *__real_calloc(size_t count, size_t size);
void *__wrap_calloc(size_t count, size_t size)
{
    return refused(ALLOCATED_CALLOC, count, size) ? nullptr : __real_calloc(count, size);
}

void *__real_realloc(void *old, size_t size);
void *__wrap_realloc(void *old, size_t size)
{
    return refused(ALLOCATED_REALLOC, 1, size) ? nullptr : __real_realloc(old, size);
}

void *__real__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t &tag);
void *__wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t &tag)
{
    return refused(ALLOCATED_NEW, 1, size) ? nullptr : __real__ZnwmRKSt9nothrow_t(size, tag);
}

void *__real__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t &tag);
void *__wrap__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t &tag)
{
    return refused(ALLOCATED_NEW_ARRAY, 1, size) ? nullptr
                                                 : __real__ZnamRKSt9nothrow_t(size, tag);
}

FILE *__real_fopen(const char *path, const char *mode);
FILE *__wrap_fopen(const char *path, const char *mode)
{
    return refused(ALLOCATED_FILE, 1, 0) ? nullptr : __real_fopen(path, mode);
}

FILE *__real_fdopen(int fd, const char *mode);
FILE *__wrap_fdopen(int fd, const char *mode)
{
    return refused(ALLOCATED_FILE, 1, 0) ? nullptr : __real_fdopen(fd, mode);
}

int __real_pthread_create(pthread_t *id, const pthread_attr_t *attributes,
                          void *(*routine)(void *), void *argument);
int __wrap_pthread_create(pthread_t *id, const pthread_attr_t *attributes,
                          void *(*routine)(void *), void *argument)
{
    return refused(ALLOCATED_THREAD, 1, 0)
               ? EAGAIN
               : __real_pthread_create(id, attributes, routine, argument);
}
}
