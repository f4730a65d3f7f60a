#include "tests/fakes/input_record.h"

#include "host/input.h"

#include <condition_variable>
#include <mutex>

// Never destroyed: a thread may still be inside when the program ends.
static std::mutex &guard = *new std::mutex;
static std::condition_variable &changed = *new std::condition_variable;
static auto &calls = *new std::vector<std::vector<host::input_event>>;
static bool block_next;
static bool blocked;

std::vector<std::vector<host::input_event>> input_record_calls()
{
    std::lock_guard<std::mutex> held(guard);
    return calls;
}

void input_record_clear()
{
    std::lock_guard<std::mutex> held(guard);
    calls.clear();
    calls.shrink_to_fit(); // for the tests that watch the process's memory
}

void input_record_block_next()
{
    std::lock_guard<std::mutex> held(guard);
    block_next = true;
}

bool input_record_blocked()
{
    std::lock_guard<std::mutex> held(guard);
    return blocked;
}

void input_record_unblock()
{
    std::lock_guard<std::mutex> held(guard);
    blocked = false;
    changed.notify_all();
}

namespace host
{

void input_send(const input_event *events, int32_t count)
{
    std::unique_lock<std::mutex> held(guard);
    if (block_next) {
        block_next = false;
        blocked = true;
        changed.wait(held, [] { return !blocked; });
    }
    calls.emplace_back(events, events + count);
}

} // namespace host
