// The product's allocations, file openings and thread creations, any of which the test can
// make fail:
//
//   // Fakes: allocation_script
//   // Wraps: malloc calloc realloc _ZnwmRKSt9nothrow_t _ZnamRKSt9nothrow_t
//   // Wraps: fopen fdopen pthread_create
//
// The linker sends the calls of all objects of the program here. What a test
// itself uses comes from elsewhere and never fails: the throwing new behind containers,
// std::thread, and what the C library allocates for itself.
#ifndef QV_TESTS_FAKES_ALLOCATION_SCRIPT_H
#define QV_TESTS_FAKES_ALLOCATION_SCRIPT_H

#include <stddef.h>

enum allocation_kind {
    ALLOCATED_MALLOC,
    ALLOCATED_CALLOC,
    ALLOCATED_REALLOC,
    ALLOCATED_NEW,       // nothrow, of one object
    ALLOCATED_NEW_ARRAY, // nothrow
    ALLOCATED_FILE,
    ALLOCATED_THREAD,
};

struct allocation {
    allocation_kind kind;
    size_t count; // calloc's first argument, else 1
    size_t size;  // bytes (of one, for calloc); 0 for files and threads
};

// From now on every allocation is shown to `fails` first and fails when that says so. It is
// called from any thread, by one at a time, and may not allocate what would be shown.
void allocation_script_start(bool (*fails)(const allocation &));

// Everything succeeds again.
void allocation_script_stop();

#endif
