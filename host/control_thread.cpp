// What the viewer says during a session, and what the host does about it.
//
// One such thread a session, started once the hellos are exchanged: from then on it is the
// channel's only receiver, and it never sends. Input and acknowledgements are dealt with at
// once and without a lock, since one that waited for a tile walk would be felt, or would
// falsify the round trip that it measures. Misses and advertisements change what the frame
// pipeline works on and take host_lock.
//
// Injecting input can block for seconds in somebody's input hook, and the server does not
// wait that long. A thread that comes back to find its session over touches nothing of the
// next one: the generation is looked at before each message, before each injection and each
// time that host_lock is taken.
#include "host/control_thread.h"
#include "host/cache_mirror.h"
#include "host/cache_replica.h"
#include "host/capture_pace.h"
#include "host/flow_control.h"
#include "host/frame_pipeline.h"
#include "host/input.h"
#include "host/input_map.h"
#include "host/intra_tile.h"
#include "host/screen.h"
#include "host/tile_ops.h"
#include "identity/server_log.h"
#include "protocol/clock.h"
#include "protocol/messages.h"

#include <monocypher.h>

namespace host
{

// Hashes that are entered in one go before the server thread gets its turn.
static constexpr uint32_t ADVERT_SLICE = 256;

static constexpr int32_t LATENCY_LOG_EVERY = 32;

static bool session_over(const host_session *session)
{
    return session_generation.load() != session->generation;
}

static void take_frame_ack(host_session *session, const uint8_t *payload)
{
    uint32_t now = clock_ms();
    uint64_t now_us = clock_us();
    frame_stamp stamp = get_frame_stamp(payload);

    // Pacing believes whatever the viewer says: at worst the viewer slows itself down.
    session->acked_seq.exchange(stamp.frame_seq);

    // What the picture's correctness rests on is believed only if it can be true, and never
    // goes back. The viewer sends a frame's misses before its acknowledgement, so all of them
    // have been acted on by now.
    uint32_t confirmed = session->confirmed_seq.load();
    if ((int32_t)(stamp.frame_seq - confirmed) > 0 &&
        (int32_t)(frame_seq.load() - stamp.frame_seq) >= 0) {
        session->confirmed_seq.store(stamp.frame_seq);
        session_put_ack(session, {stamp.frame_seq, now_us});
    }

    if (session->waits_for_ack.exchange(0) != 0)
        capture_pace_news();

    latency_estimator *e = &session->estimator;
    latency_update(e, latency_sample(now, stamp.sent_ms));
    session->ema_rtt16.store(e->ema_rtt16);
    session->tile_budget.store(e->tile_budget);
    if (e->ack_count % LATENCY_LOG_EVERY == 0)
        server_log("latency: rtt=%ldms floor=%ldms ema=%ldms budget=%ld inflight_cap=%ld",
                   (long)e->last_rtt, (long)e->rtt_floor, (long)(e->ema_rtt16 >> 4),
                   (long)e->tile_budget, (long)inflight_cap(e->ema_rtt16));
}

// What a session has pressed is noted after a press was injected and forgotten before a
// release is: whichever of the two threads ends the session, and wherever this one may be
// stuck then, each key that went down goes up once and afterwards.

static void take_mouse(host_session *session, const uint8_t *payload)
{
    mouse_event mouse = get_mouse(payload);
    input_event event =
        input_from_mouse(mouse, screen.screen_width.load(), screen.screen_height.load());
    bool button = mouse.button < 3;
    uint32_t bit = button ? 1u << mouse.button : 0;

    if (session_over(session))
        return;
    if (mouse.kind == MOUSE_UP)
        session->buttons_down.fetch_and(~bit);
    input_send(&event, 1);
    capture_pace_input();
    if (mouse.kind == MOUSE_DOWN)
        session->buttons_down.fetch_or(bit);
}

static void take_key(host_session *session, const uint8_t *payload)
{
    uint32_t value = load_le32(payload);
    input_event event = input_from_key(value);
    bool press = (value & KEY_PRESS_MASK) != 0;
    // Virtual keys end at 255; what lies above presses nothing.
    bool known = event.virtual_key < 256;
    std::atomic<uint64_t> *word = &session->keys_down[event.virtual_key >> 6 & 3];
    uint64_t bit = known ? (uint64_t)1 << (event.virtual_key & 63) : 0;

    if (session_over(session))
        return;
    if (!press)
        word->fetch_and(~bit);
    input_send(&event, 1);
    capture_pace_input();
    if (press)
        word->fetch_or(bit);
}

static void take_char(host_session *session, const uint8_t *payload)
{
    input_event events[2];
    input_from_char(load_le16(payload), events);
    if (session_over(session))
        return;
    input_send(events, 2);
    capture_pace_input();
}

static void take_cache_advert(host_session *session, const uint8_t *payload, uint32_t length)
{
    uint32_t count = length / 8; // a remainder is ignored
    uint32_t done = 0;
    uint32_t in_mirror = 0;
    do {
        uint32_t end = count - done > ADVERT_SLICE ? done + ADVERT_SLICE : count;
        lock_enter(&host_lock);
        bool over = session_over(session);
        if (!over) {
            for (; done < end; done++) {
                uint64_t hash = load_le64(payload + (uint64_t)done * 8);
                cache_mirror_insert(hash);
                cache_replica_advertised(hash);
            }
            in_mirror = cache_mirror_count();
        }
        lock_leave(&host_lock);
        if (over)
            return;
    } while (done < count);
    server_log("cache: client advertised %u tiles (mirror now %u)", count, in_mirror);
}

// Zeroes what the viewer is thought to show there and has the tile examined again. A tile
// that is all zero equals that and is not sent again; kept on purpose. Its effect: a viewer
// that missed a black tile goes on showing what was there before, until the tile changes.
// Not where that may be the rubbish of an intra tile.
static void resend_tile(const host_session *session, uint16_t tx, uint16_t ty, bool rubbish)
    REQUIRES(host_lock)
{
    // A screen without buffers has no tiles.
    if (tx >= screen.tiles_x || ty >= screen.tiles_y)
        return;
    tile_clear(screen.prev_frame + tile_offset(screen.padded_width, tx, ty),
               (uint64_t)screen.padded_width * PIXEL_BYTES);
    int64_t tile = (int64_t)ty * screen.tiles_x + tx;
    tile_base_missed(&screen.bases[tile], session->confirmed_seq.load());
    if (rubbish)
        screen.bases[tile].must_send = 1;
    screen.dirty_map[tile].store(1);
}

static void take_cache_miss(host_session *session, const uint8_t *payload)
{
    tile_ref ref = get_tile_ref(payload);
    lock_enter(&host_lock);
    if (!session_over(session)) {
        cache_mirror_remove(ref.hash);
        cache_replica_missed(ref.hash, session->confirmed_seq.load());
        resend_tile(session, ref.tile_x, ref.tile_y, intra_missed(ref.hash));
        capture_pace_news();
    }
    lock_leave(&host_lock);
}

void control_message(host_session *session, uint8_t type, const uint8_t *payload,
                     uint32_t length)
{
    switch (type) {
    case MSG_FRAME_ACK:
        if (length >= FRAME_ACK_BYTES)
            take_frame_ack(session, payload);
        break;
    case MSG_MOUSE:
        if (length >= MOUSE_BYTES)
            take_mouse(session, payload);
        break;
    case MSG_KEY:
        if (length >= KEY_BYTES)
            take_key(session, payload);
        break;
    case MSG_CHAR:
        if (length >= CHAR_BYTES)
            take_char(session, payload);
        break;
    case MSG_CACHE_ADVERT: // any length, none included
        take_cache_advert(session, payload, length);
        break;
    case MSG_CACHE_MISS:
        if (length >= CACHE_MISS_BYTES)
            take_cache_miss(session, payload);
        break;
    default:
        break;
    }

    // A viewer advertises before it says anything else, and only a full message has another
    // one after it.
    if (type != MSG_CACHE_ADVERT || length != CACHE_ADVERT_MAX_HASHES * 8)
        session->advert_over.store(1);
}

void control_thread(void *argument)
{
    host_session *session = (host_session *)argument;
    uint8_t payload[HOST_PAYLOAD_MAX];

    // A record may hold many messages, so a thread that was stuck could read on for a while
    // from what it has already received.
    while (!session_over(session)) {
        uint8_t head[MESSAGE_HEADER_BYTES];
        if (!channel_recv(&session->receiver, head, sizeof head))
            break;
        message_header header = get_header(head);
        if (header.length > HOST_PAYLOAD_MAX)
            break;
        if (!channel_recv(&session->receiver, payload, header.length))
            break;
        control_message(session, header.type, payload, header.length);
    }
    crypto_wipe(payload, sizeof payload); // keys that were typed

    // The end is reported before the releases, which may be stuck in an input hook too: the
    // server has its own limit for this thread and need not notice the end any later.
    net_abort(session->sock);
    session->session_ended.exchange(1);
    capture_pace_news(); // which at worst wakes the next session's server for nothing
    session_release_input(session);
    session_release(session);
}

} // namespace host
