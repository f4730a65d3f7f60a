// The record that the server thread and a session's control thread share, and its end.
//
// A session can end while its control thread sits in a call that nobody can cut short, so
// the record outlives the session as long as either thread needs it. Two things keep such a
// late thread away from the next session: everything it uses is its own (socket, receiving
// half, estimator), and the generation tells it that its session is over.
#include "host/host_session.h"
#include "host/input.h"
#include "host/input_map.h"

#include <new>

namespace host
{

std::atomic<uint32_t> session_generation;

host_session *session_create(net_socket sock, uint32_t frame_seq)
{
    host_session *session = new (std::nothrow) host_session();
    if (session == nullptr)
        return nullptr;
    session->generation = session_generation.load();
    session->sock = sock;
    session->owners = 1;
    session->receiver = {};
    session->estimator = latency_start();
    session->acked_seq = frame_seq;
    session->confirmed_seq = frame_seq;
    session->ema_rtt16 = session->estimator.ema_rtt16;
    session->tile_budget = session->estimator.tile_budget;
    return session;
}

void session_put_ack(host_session *session, session_ack ack)
{
    uint32_t put = session->acks_put;
    if (put - session->acks_taken == SESSION_ACKS)
        return;
    session->acks[put % SESSION_ACKS] = ack;
    session->acks_put = put + 1;
}

bool session_take_ack(host_session *session, session_ack *ack)
{
    uint32_t taken = session->acks_taken;
    if (taken == session->acks_put)
        return false;
    *ack = session->acks[taken % SESSION_ACKS];
    session->acks_taken = taken + 1;
    return true;
}

void session_release(host_session *session)
{
    // The last to leave sees everything that the other one wrote: the decrement both
    // publishes and collects.
    if (session->owners.fetch_sub(1) != 1)
        return;
    channel_reset_receiver(&session->receiver);
    net_close(session->sock);
    delete session;
}

void session_retire()
{
    lock_enter(&host_lock);
    session_generation.fetch_add(1);
    lock_leave(&host_lock);
}

void session_release_input(host_session *session)
{
    // One event a call: a handful of keys at most, once a session.
    for (uint32_t word = 0; word < 4; word++) {
        uint64_t keys = session->keys_down[word].exchange(0);
        for (uint32_t bit = 0; bit < 64; bit++) {
            if ((keys >> bit & 1) == 0)
                continue;
            input_event event = input_from_key(word * 64 + bit); // without the press bit
            input_send(&event, 1);
        }
    }
    uint32_t buttons = session->buttons_down.exchange(0);
    for (uint8_t button = 0; button < 3; button++) {
        if ((buttons >> button & 1) == 0)
            continue;
        input_event event = input_button_release(button);
        input_send(&event, 1);
    }
}

} // namespace host
