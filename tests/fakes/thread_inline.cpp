#include "tests/fakes/thread_inline.h"

#include "protocol/thread.h"

struct thread {
    bool ended;
};

static thread only;

void (*thread_inline_on_start)(void *argument);
bool thread_inline_refuse_next;

thread *thread_start(void (*routine)(void *), void *argument)
{
    if (thread_inline_refuse_next) {
        thread_inline_refuse_next = false;
        return nullptr;
    }
    if (thread_inline_on_start)
        thread_inline_on_start(argument);
    routine(argument);
    only.ended = true;
    return &only;
}

bool thread_join(thread *t, uint32_t)
{
    return t->ended;
}

void thread_detach(thread *)
{
}
