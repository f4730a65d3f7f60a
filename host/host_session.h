// One viewer session, as the server thread and its control thread share it.
//
// The record is on the heap and has two owners: the server thread, and the control thread
// once it runs. Whichever leaves last closes the socket, wipes the receiving half and frees
// the record, so a control thread that is stuck in a system call when its session ends
// (input hooks can take seconds) comes back to memory and a handle that are still its own.
// It must then touch nothing of a later session: it checks the generation where it holds
// host_lock, and before it injects input. The one thing that it still sends is the release
// for a press in which it was stuck, which nobody else could send in time.
#ifndef QV_HOST_HOST_SESSION_H
#define QV_HOST_HOST_SESSION_H

#include "host/flow_control.h"
#include "host/host_lock.h"
#include "protocol/net.h"
#include "protocol/secure_channel.h"

#include <atomic>
#include <stdint.h>

namespace host
{

// TCP keep-alive of a session's connection, seconds.
constexpr uint32_t SESSION_KEEPALIVE_IDLE_S = 60;
constexpr uint32_t SESSION_KEEPALIVE_INTERVAL_S = 10;

// Acknowledgements that may wait for the server thread; more than are ever under way.
constexpr uint32_t SESSION_ACKS = 64;

struct session_ack {
    uint32_t seq;
    uint64_t at_us; // by clock_us
};

struct host_session {
    uint32_t generation; // constant
    net_socket sock;     // constant; aborted by any thread, closed by the last owner
    std::atomic<uint32_t> owners;

    // For how long after the host's hello the first walk may wait for the viewer's
    // advertisement; constant once the control thread runs.
    uint32_t hello_sent_ms, advert_wait_ms;

    // The two round trips of its handshake; constant once the control thread runs.
    uint64_t key_trip_us, hello_trip_us;

    // Control thread only, once it runs.
    channel_receiver receiver;
    latency_estimator estimator;

    // Written by the control thread, read by the server thread; single words, no lock.
    std::atomic<uint32_t> acked_seq;     // newest frame acknowledged, or passed by a stall
    std::atomic<uint32_t> confirmed_seq; // newest frame really acknowledged
    std::atomic<int32_t> ema_rtt16;
    std::atomic<int32_t> tile_budget;
    std::atomic<uint32_t> advert_over;   // the viewer's advertisement, if any, is in the mirror
    std::atomic<uint32_t> session_ended; // the viewer's side of the connection failed

    // Set by the server thread when it may send nothing before an acknowledgement, taken by
    // the control thread when one comes.
    std::atomic<uint32_t> waits_for_ack;

    // Acknowledgements that can be true, each newer than the one before, on their way from the
    // control thread to the server thread. One that finds no room is dropped: the next one
    // says the same and more. A slot is the control thread's until acks_put has passed it and
    // again from when acks_taken has.
    session_ack acks[SESSION_ACKS];
    std::atomic<uint32_t> acks_put;   // so many so far; control thread
    std::atomic<uint32_t> acks_taken; // server thread

    // What this session pressed and did not release yet: a bit a virtual key, a bit a
    // button. Set once a press was injected; taken by exchange, so that each release is
    // sent once.
    std::atomic<uint64_t> keys_down[4];
    std::atomic<uint32_t> buttons_down;
};

// The running session's generation; changes when a session ends. Raised under host_lock, so
// whoever holds the lock and finds it equal is in the running session.
extern std::atomic<uint32_t> session_generation;

// A session with one owner and start values, numbering from frame_seq; null when memory is
// short (the socket then stays the caller's).
host_session *session_create(net_socket sock, uint32_t frame_seq);

// Hands an acknowledgement to the server thread. Control thread.
void session_put_ack(host_session *session, session_ack ack);

// Takes the oldest that waits; false when none does. Server thread.
[[nodiscard]] bool session_take_ack(host_session *session, session_ack *ack);

// One owner leaves.
void session_release(host_session *session);

// Raises the generation. Takes host_lock.
void session_retire();

// Sends the releases for everything that the session left pressed.
void session_release_input(host_session *session);

} // namespace host

#endif
