// Threads, locks, clock and connections that do nothing of their own accord: one thread runs
// at a time, until it stops at one of these seams, and the test says which runs next and
// which bytes arrive when. So a program of many threads plays the same way again from the
// same decisions, and a decision can fall anywhere.
//
// In place of the seams protocol/thread.h, lock.h, clock.h, random.h and net.h, whole. The
// test's own thread never waits in them.
#ifndef QV_TESTS_FAKES_STEPPED_H
#define QV_TESTS_FAKES_STEPPED_H

#include "protocol/lock.h"
#include "protocol/net.h"

#include <stddef.h>
#include <stdint.h>
#include <vector>

// ---------------------------------------------------------------------------------------
// Threads

enum stepped_place {
    AT_START,  // before its first instruction
    AT_LOCK,   // about to take a lock
    AT_CLOCK,  // about to read the clock
    AT_SLEEP,  // asleep (the clock has moved on already)
    AT_SEND,   // has sent a part, or waits for room
    AT_RECV,   // waits for bytes
    AT_ACCEPT, // waits for a connection
    AT_JOIN,   // waits for a thread
    AT_SEAM,   // stands at a seam of the test's own: stepped_stop
    AT_END,    // has returned
};

struct stepped_thread;

// What thread_start does too. The thread stands AT_START.
stepped_thread *stepped_start(void (*routine)(void *), void *argument);

// Whether it can go on: it has not ended, and what it waits for has come.
bool stepped_can_run(const stepped_thread *t);

// Lets it run to its next stop; it can run.
void stepped_run(stepped_thread *t);

stepped_place stepped_at(const stepped_thread *t);

// All that have not ended. And the one that calls, null for the test's own.
std::vector<stepped_thread *> stepped_threads();
stepped_thread *stepped_self();

// Called by a thread of these, at a seam of the test's own. Nothing in the test's thread.
void stepped_stop(stepped_place place);

// What the test decides and hears; all may be null.
struct stepped_hooks {
    // Whether the calling thread stops here, where it need not: AT_LOCK, AT_CLOCK, AT_SEND.
    bool (*stops)(stepped_place place);
    // thread_start made a thread.
    void (*started)(stepped_thread *t, void (*routine)(void *), void *argument);
    // The calling thread has just taken a lock, or is about to leave it, for the last time
    // where it holds it more than once.
    void (*locked)(const lock *l);
    void (*unlocking)(const lock *l);
    // Bytes are about to be sent, all of one call; false: they are lost, to no one's notice.
    bool (*sends)(net_socket sock, const uint8_t *data, size_t n);
};
extern stepped_hooks stepped_hook;

// What clock_ms returns. clock_sleep_ms adds to it.
extern uint32_t stepped_clock;

// ---------------------------------------------------------------------------------------
// Connections

enum stepped_direction { TO_HOST, TO_VIEWER };

// Forgets all connections; no thread may use one any more.
void stepped_net_reset();

// The viewer's end of a new connection to whoever accepts next. The sender waits while this
// many bytes are under way.
net_socket stepped_connect(size_t room);

// Makes accept fail, now and from now on (until the reset).
void stepped_end_listening();

// Bytes of the newest connection that are under way and have not arrived; and bytes that
// have arrived and were not read.
size_t stepped_under_way(stepped_direction direction);
size_t stepped_unread(stepped_direction direction);

// Lets the next n of those under way arrive.
void stepped_deliver(stepped_direction direction, size_t n);

// Breaks the newest connection: of what is under way these many bytes will still arrive at
// once, the rest never.
void stepped_cut(size_t to_host, size_t to_viewer);

// Whether an end of the newest connection was aborted or the connection was cut; and whether
// its host's end is still open.
bool stepped_broken();
bool stepped_host_end_open();

#endif
