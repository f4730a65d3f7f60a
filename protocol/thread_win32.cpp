// Threads: the record that callers hold is the thread's handle itself.
#include "protocol/thread.h"

#include "protocol/win32.h"

#include <process.h>
#include <stdlib.h>

static_assert(THREAD_WAIT_FOREVER == INFINITE);

// What a new thread needs to know; it frees this itself.
struct thread_task {
    void (*routine)(void *);
    void *argument;
};

static unsigned __stdcall run(void *parameter)
{
    thread_task task = *(thread_task *)parameter;
    free(parameter);
    task.routine(task.argument);
    return 0;
}

thread *thread_start(void (*routine)(void *), void *argument)
{
    thread_task *task = (thread_task *)malloc(sizeof *task);
    if (!task)
        return nullptr;
    *task = {routine, argument};
    // Not CreateThread: the C library keeps state for each thread.
    uintptr_t handle = _beginthreadex(nullptr, 0, run, task, 0, nullptr);
    if (handle == 0)
        free(task);
    return (thread *)handle;
}

bool thread_join(thread *t, uint32_t limit_ms)
{
    bool ended = WaitForSingleObject((HANDLE)t, limit_ms) == WAIT_OBJECT_0;
    CloseHandle((HANDLE)t);
    return ended;
}

void thread_detach(thread *t)
{
    CloseHandle((HANDLE)t);
}
