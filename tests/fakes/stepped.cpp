#include "tests/fakes/stepped.h"

#include "protocol/clock.h"
#include "protocol/random.h"
#include "protocol/thread.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <thread>

stepped_hooks stepped_hook;
uint32_t stepped_clock;

// A seam was used against its contract: that is a defect, and the threads cannot go on.
[[noreturn]] static void wrong(const char *what)
{
    printf("stepped: %s\n", what);
    fflush(stdout);
    _Exit(1);
}

// ---------------------------------------------------------------------------------------
// Threads
//
// Whoever's turn it is runs; all the others wait for theirs. Threads of the system are used
// again when a routine has ended, since a run starts thousands.

struct stepped_thread {
    std::condition_variable my_turn;
    stepped_place place;
    uint64_t number;             // of the starts
    std::function<bool()> ready; // what it waits for; empty: nothing
    void (*routine)(void *);
    void *argument;
};

// Never destroyed: the threads wait for ever.
static std::mutex &guard = *new std::mutex;
static std::condition_variable &test_turn = *new std::condition_variable;
static auto &pool = *new std::deque<stepped_thread>;
static uint64_t starts;
static stepped_thread *turn; // null: the test's. Read without the guard by whose turn it is

// The thread's own: gives the turn back and waits for the next.
static void give_back(stepped_thread *self)
{
    std::unique_lock<std::mutex> held(guard);
    turn = nullptr;
    test_turn.notify_one();
    self->my_turn.wait(held, [self] { return turn == self; });
}

static void live(stepped_thread *self)
{
    {
        std::unique_lock<std::mutex> held(guard);
        self->my_turn.wait(held, [self] { return turn == self; });
    }
    for (;;) {
        self->routine(self->argument);
        self->place = AT_END;
        give_back(self);
    }
}

stepped_thread *stepped_start(void (*routine)(void *), void *argument)
{
    stepped_thread *t = nullptr;
    for (stepped_thread &old : pool)
        if (old.place == AT_END)
            t = &old;
    bool fresh = !t;
    if (fresh)
        t = &pool.emplace_back();
    t->place = AT_START;
    t->number = starts++;
    t->ready = nullptr;
    t->routine = routine;
    t->argument = argument;
    if (fresh)
        std::thread(live, t).detach();
    return t;
}

bool stepped_can_run(const stepped_thread *t)
{
    return t->place != AT_END && (!t->ready || t->ready());
}

void stepped_run(stepped_thread *t)
{
    std::unique_lock<std::mutex> held(guard);
    turn = t;
    t->my_turn.notify_one();
    test_turn.wait(held, [] { return turn == nullptr; });
}

stepped_place stepped_at(const stepped_thread *t)
{
    return t->place;
}

std::vector<stepped_thread *> stepped_threads()
{
    std::vector<stepped_thread *> all;
    for (stepped_thread &t : pool)
        if (t.place != AT_END)
            all.push_back(&t);
    // Not in the pool's order, which tells of what ran before.
    std::sort(all.begin(), all.end(), [](const stepped_thread *a, const stepped_thread *b) {
        return a->number < b->number;
    });
    return all;
}

stepped_thread *stepped_self()
{
    return turn;
}

void stepped_stop(stepped_place place)
{
    stepped_thread *self = turn;
    if (!self)
        return;
    self->place = place;
    give_back(self);
}

// Stops where the test wants it.
static void may_stop(stepped_place place)
{
    if (turn && stepped_hook.stops && stepped_hook.stops(place))
        stepped_stop(place);
}

static void wait_for(stepped_place place, const std::function<bool()> &come)
{
    if (come())
        return;
    stepped_thread *self = turn;
    if (!self)
        wrong("the test's own thread would wait for ever");
    self->ready = come;
    while (!come())
        stepped_stop(place);
    self->ready = nullptr;
}

struct thread {
    stepped_thread *runs;
};

thread *thread_start(void (*routine)(void *), void *argument)
{
    thread *t = new thread{stepped_start(routine, argument)};
    if (stepped_hook.started)
        stepped_hook.started(t->runs, routine, argument);
    return t;
}

bool thread_join(thread *t, uint32_t limit_ms)
{
    uint32_t start = stepped_clock;
    wait_for(AT_JOIN, [=] {
        return t->runs->place == AT_END ||
               (limit_ms != THREAD_WAIT_FOREVER && stepped_clock - start >= limit_ms);
    });
    bool ended = t->runs->place == AT_END;
    delete t;
    return ended;
}

void thread_detach(thread *t)
{
    delete t;
}

// ---------------------------------------------------------------------------------------
// Locks, clock, random bytes

namespace
{
struct stepped_lock {
    const void *owner;
    uint32_t depth;
};
} // namespace

static_assert(sizeof(stepped_lock) <= sizeof(lock::storage));

static stepped_lock *inside(lock *l)
{
    return (stepped_lock *)(void *)l->storage;
}

static const void *whose_turn()
{
    return turn ? (const void *)turn : (const void *)&turn;
}

void lock_init(lock *)
{
}

void lock_enter(lock *l) NO_THREAD_SAFETY_ANALYSIS
{
    stepped_lock *s = inside(l);
    if (s->depth == 0)
        may_stop(AT_LOCK);
    const void *self = whose_turn();
    wait_for(AT_LOCK, [=] { return s->depth == 0 || s->owner == self; });
    s->owner = self;
    s->depth++;
    if (s->depth == 1 && stepped_hook.locked)
        stepped_hook.locked(l);
}

void lock_leave(lock *l) NO_THREAD_SAFETY_ANALYSIS
{
    stepped_lock *s = inside(l);
    if (s->depth == 0 || s->owner != whose_turn())
        wrong("a lock is left by a thread that does not hold it");
    if (s->depth == 1 && stepped_hook.unlocking)
        stepped_hook.unlocking(l);
    s->depth--;
}

uint32_t clock_ms()
{
    may_stop(AT_CLOCK);
    return stepped_clock;
}

// Goes on where the other wraps.
uint64_t clock_us()
{
    static uint64_t ms;
    ms += stepped_clock - (uint32_t)ms;
    return ms * 1000;
}

void clock_sleep_ms(uint32_t ms)
{
    stepped_clock += ms;
    stepped_stop(AT_SLEEP);
}

bool random_bytes(uint8_t *data, size_t n)
{
    static uint64_t state = 1; // keys need only differ
    for (size_t i = 0; i < n; i++) {
        state = state * 6364136223846793005u + 1442695040888963407u;
        data[i] = (uint8_t)(state >> 56);
    }
    return true;
}

// ---------------------------------------------------------------------------------------
// Connections

namespace
{
struct pipe_end { // one end: whoever sends into one pipe and reads from the other
    bool aborted, closed;
};

struct pipe_bytes {
    std::vector<uint8_t> bytes;
    size_t arrived; // of them
    size_t taken;   // of those
};

struct connection {
    pipe_bytes pipes[2]; // by stepped_direction
    pipe_end ends[2];    // host's, viewer's
    bool cut;
    bool accepted;
    size_t room;
};
} // namespace

constexpr net_socket LISTENER = 1;
constexpr net_socket FIRST_SOCK = 16; // link i has 16 + 2i, the host's, and 17 + 2i
static auto &links = *new std::deque<connection>;
static bool listening_ended;

static connection *link_of(net_socket sock)
{
    size_t i = (size_t)(sock - FIRST_SOCK) / 2;
    if (sock < FIRST_SOCK || i >= links.size())
        wrong("a socket is used that never was one");
    return &links[i];
}

static int side_of(net_socket sock)
{
    return sock % 2 != 0;
}

static pipe_end *end_of(net_socket sock)
{
    pipe_end *end = &link_of(sock)->ends[side_of(sock)];
    if (end->closed)
        wrong("a socket is used after it was closed");
    return end;
}

void stepped_net_reset()
{
    links.clear();
    listening_ended = false;
}

net_socket stepped_connect(size_t room)
{
    links.push_back({});
    links.back().room = room;
    return FIRST_SOCK + 2 * (links.size() - 1) + 1;
}

void stepped_end_listening()
{
    listening_ended = true;
}

size_t stepped_under_way(stepped_direction direction)
{
    if (links.empty())
        return 0;
    const pipe_bytes &pipe = links.back().pipes[direction];
    return pipe.bytes.size() - pipe.arrived;
}

size_t stepped_unread(stepped_direction direction)
{
    if (links.empty())
        return 0;
    const pipe_bytes &pipe = links.back().pipes[direction];
    return pipe.arrived - pipe.taken;
}

void stepped_deliver(stepped_direction direction, size_t n)
{
    if (n > stepped_under_way(direction))
        wrong("more is to be delivered than there is");
    if (n > 0)
        links.back().pipes[direction].arrived += n;
}

void stepped_cut(size_t to_host, size_t to_viewer)
{
    size_t left[2];
    left[TO_HOST] = to_host;
    left[TO_VIEWER] = to_viewer;
    for (int i = 0; i < 2; i++) {
        stepped_deliver((stepped_direction)i, left[i]);
        pipe_bytes *pipe = &links.back().pipes[i];
        pipe->bytes.resize(pipe->arrived);
    }
    links.back().cut = true;
}

bool stepped_broken()
{
    const connection &l = links.back();
    return l.cut || l.ends[0].aborted || l.ends[1].aborted;
}

bool stepped_host_end_open()
{
    return !links.empty() && links.back().accepted && !links.back().ends[0].closed;
}

void net_start()
{
}

int net_last_error()
{
    return 0;
}

net_socket net_listen(uint16_t, int)
{
    return LISTENER;
}

net_socket net_accept(net_socket)
{
    auto waiting = [] { return !links.empty() && !links.back().accepted; };
    wait_for(AT_ACCEPT, [=] { return listening_ended || waiting(); });
    if (listening_ended)
        return NET_INVALID;
    links.back().accepted = true;
    return FIRST_SOCK + 2 * (links.size() - 1);
}

net_connect_result net_connect(const char *, const char *, bool, net_socket *sock)
{
    *sock = NET_INVALID;
    return NET_UNRESOLVED;
}

bool net_recv_all(net_socket sock, uint8_t *data, size_t n, const net_deadline &deadline)
{
    const pipe_end *end = end_of(sock);
    connection *l = link_of(sock);
    pipe_bytes *pipe = &l->pipes[side_of(sock)];
    const pipe_end *peer = &l->ends[!side_of(sock)];
    while (n > 0) {
        auto late = [=] {
            return deadline.set && (int32_t)(deadline.at_ms - stepped_clock) <= 0;
        };
        // The peer's end shows when all that it sent before has arrived and was read.
        auto ended = [=] {
            return end->aborted ||
                   ((l->cut || peer->aborted) && pipe->taken == pipe->bytes.size());
        };
        wait_for(AT_RECV, [=] { return pipe->arrived > pipe->taken || ended() || late(); });
        if (end->aborted || late() || pipe->arrived == pipe->taken)
            return false;
        size_t part = pipe->arrived - pipe->taken;
        part = part < n ? part : n;
        memcpy(data, &pipe->bytes[pipe->taken], part);
        pipe->taken += part;
        data += part;
        n -= part;
        if (pipe->taken == pipe->bytes.size()) {
            pipe->bytes.clear();
            pipe->arrived = pipe->taken = 0;
        }
    }
    return true;
}

bool net_send_all(net_socket sock, const uint8_t *data, size_t n)
{
    const pipe_end *end = end_of(sock);
    connection *l = link_of(sock);
    pipe_bytes *pipe = &l->pipes[!side_of(sock)];
    const pipe_end *peer = &l->ends[!side_of(sock)];
    if (stepped_hook.sends && !stepped_hook.sends(sock, data, n))
        return true;
    while (n > 0) {
        auto ended = [=] { return l->cut || end->aborted || peer->aborted; };
        wait_for(AT_SEND,
                 [=] { return ended() || pipe->bytes.size() - pipe->taken < l->room; });
        if (ended())
            return false;
        size_t part = n < NET_SEND_CHUNK ? n : NET_SEND_CHUNK;
        pipe->bytes.insert(pipe->bytes.end(), data, data + part);
        data += part;
        n -= part;
        may_stop(AT_SEND);
    }
    return true;
}

bool net_send_once(net_socket sock, const uint8_t *data, size_t n)
{
    return net_send_all(sock, data, n);
}

bool net_wait_readable(net_socket)
{
    return true;
}

void net_set_nodelay(net_socket)
{
}

void net_set_send_buffer(net_socket, int)
{
}

void net_set_recv_buffer(net_socket, int)
{
}

void net_set_send_timeout(net_socket, uint32_t)
{
}

void net_set_keepalive(net_socket, uint32_t, uint32_t)
{
}

void net_abort(net_socket sock)
{
    if (sock != NET_INVALID)
        end_of(sock)->aborted = true;
}

void net_close(net_socket sock)
{
    if (sock == NET_INVALID)
        return;
    pipe_end *end = end_of(sock);
    end->aborted = true;
    end->closed = true;
}
