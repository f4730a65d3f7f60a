#include "tests/fakes/thread_script.h"

#include "protocol/thread.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace
{
struct ending {
    std::mutex guard;
    std::condition_variable changed;
    bool done;
};
} // namespace

struct thread {
    std::thread runs;
    std::shared_ptr<ending> end;
};

static std::atomic<bool> refuse_next;
static std::atomic<uint32_t> join_limit;

void thread_script_refuse_next()
{
    refuse_next = true;
}

uint32_t thread_script_join_limit()
{
    return join_limit;
}

thread *thread_start(void (*routine)(void *), void *argument)
{
    if (refuse_next.exchange(false))
        return nullptr;
    auto end = std::make_shared<ending>();
    return new thread{std::thread([routine, argument, end] {
                          routine(argument);
                          std::lock_guard<std::mutex> held(end->guard);
                          end->done = true;
                          end->changed.notify_all();
                      }),
                      end};
}

bool thread_join(thread *t, uint32_t limit_ms)
{
    join_limit = limit_ms;
    bool done = true;
    if (limit_ms != THREAD_WAIT_FOREVER) {
        std::unique_lock<std::mutex> held(t->end->guard);
        done = t->end->changed.wait_for(held, std::chrono::milliseconds(limit_ms),
                                        [t] { return t->end->done; });
    }
    if (done)
        t->runs.join();
    else
        t->runs.detach();
    delete t;
    return done;
}

void thread_detach(thread *t)
{
    t->runs.detach();
    delete t;
}
