// Fakes: net_memory clock_script cursor_script input_record server_log_record
// Fakes: identity_script thread_inline
// Options: -max_len=2048 -len_control=0
// Seeds: 100 1500
//
// The host's server from a connection to the end of its session, with a viewer that says
// anything. The connection is plain (records and handshake have targets of their own). The
// control thread runs inside thread_start; whenever it waits for bytes, the input says what
// happens meanwhile: the screen changes, the frame pipeline runs, time passes.
//
// Every frame is taken apart by a plain viewer. A tile about which the viewer has told no lie
// (a miss of what it had, a hash that it has not) and of which the host is certain is the
// same on both sides at any time; when all is at rest the viewer shows the screen. What was
// pressed is released when the session ends.
#include "fuzz/fuzz.h"
#include "fuzz/picture_model.h"
#include "host/cache_mirror.h"
#include "host/capture.h"
#include "host/control_thread.h"
#include "host/frame_pipeline.h"
#include "host/host_channel.h"
#include "host/host_platform.h"
#include "host/host_server.h"
#include "host/host_session.h"
#include "host/screen.h"
#include "host/text_layer.h"
#include "host/tile_hash.h"
#include "host/tile_ops.h"
#include "protocol/handshake.h"
#include "protocol/relay_hello.h"
#include "tests/fakes/clock_script.h"
#include "tests/fakes/cursor_script.h"
#include "tests/fakes/identity_script.h"
#include "tests/fakes/input_record.h"
#include "tests/fakes/net_memory.h"
#include "tests/fakes/server_log_record.h"
#include "tests/fakes/thread_inline.h"

#include <map>
#include <set>
#include <utility>

using host::screen;

struct unserved {
    uint64_t hash;
    uint32_t frame;
};

static struct {
    fuzz_input *in;
    host::host_session *session;
    bool handshake_fails, duplication, hello_done, served;
    int handshakes;

    // The screen, and what capture has not seen of it.
    int32_t width, height;
    bytes pixels;
    std::vector<copy_rect> moves, changed;
    bool restart;

    // The viewer: its picture, and the tiles about which it lied or was left in the dark.
    picture_model model;
    std::vector<bool> doubtful;
    // References that the viewer could not serve and has not reported yet, by tile.
    std::map<std::pair<int32_t, int32_t>, unserved> misses;
    message_reader from_host, from_viewer;
    std::vector<uint64_t> hashes;
    frame_stamp last_end;
    uint32_t seq; // of the last frame

    std::set<uint64_t> mirror; // hashes that the host has reason to believe cached
    size_t input_calls;
} run;

// ---------------------------------------------------------------------------------------
// What stands in for the edges

bool handshake_as_host(secure_channel *channel, net_socket sock,
                       void (*read_password)(char password[PASSWORD_MAX + 1]),
                       const net_deadline &deadline, uint64_t *)
{
    run.handshakes++;
    char password[PASSWORD_MAX + 1];
    read_password(password);
    channel_open(channel, sock);
    channel->receiver.deadline = deadline;
    if (run.handshake_fails)
        channel_reset(channel);
    return !run.handshake_fails;
}

namespace host
{

void host_platform_dpi_aware()
{
}

void host_platform_real_time()
{
}

int capture_start()
{
    FUZZ_CHECK(screen_resize(run.width, run.height));
    return run.duplication;
}

bool capture_is_duplication()
{
    return run.duplication;
}

capture_result capture_step()
{
    if (run.restart) {
        run.restart = false;
        if (screen.screen_width != run.width || screen.screen_height != run.height)
            FUZZ_CHECK(screen_resize(run.width, run.height));
        lock_enter(&host_lock);
        frame_reset();
        lock_leave(&host_lock);
        run.moves.clear();
        run.changed = {{0, 0, 0, 0, run.width, run.height}};
        return CAPTURE_RESTARTED;
    }
    if (run.changed.empty())
        return CAPTURE_NOTHING;
    for (const copy_rect &r : run.changed)
        capture_copy_rect(run.pixels.data(), (int64_t)run.width * 4, r.dst_x, r.dst_y,
                          r.dst_x + r.w, r.dst_y + r.h);
    for (const copy_rect &m : run.moves)
        if (screen.move_count < MOVE_MAX)
            screen.move_list[screen.move_count++] = m;
    run.changed.clear();
    run.moves.clear();
    return CAPTURE_FRAME;
}

} // namespace host

// ---------------------------------------------------------------------------------------
// The screen

static uint8_t *pixel(int32_t x, int32_t y)
{
    return &run.pixels[((size_t)y * (size_t)run.width + (size_t)x) * 4];
}

// A rectangle on the screen with a destination on it; often of whole tiles.
static copy_rect take_rect()
{
    uint8_t kind = take_u8(run.in);
    int32_t mask = kind & 1 ? ~63 : ~0;
    copy_rect r = {};
    r.src_x = (int32_t)take_below(run.in, (uint32_t)run.width) & mask;
    r.src_y = (int32_t)take_below(run.in, (uint32_t)run.height) & mask;
    r.w = kind & 1 ? 64 << (kind >> 1 & 1) : 1 + take_u8(run.in);
    r.h = kind & 1 ? 64 << (kind >> 2 & 1) : 1 + take_u8(run.in);
    r.w = std::min(r.w, run.width - r.src_x);
    r.h = std::min(r.h, run.height - r.src_y);
    r.dst_x = (int32_t)take_below(run.in, (uint32_t)(run.width - r.w + 1)) & mask;
    r.dst_y = (int32_t)take_below(run.in, (uint32_t)(run.height - r.h + 1)) & mask;
    return r;
}

static void draw()
{
    copy_rect r = take_rect();
    uint8_t pattern = take_u8(run.in);
    for (int32_t y = r.dst_y; y < r.dst_y + r.h; y++)
        for (int32_t x = r.dst_x; x < r.dst_x + r.w; x++) {
            // One value, black among them; alike in all tiles; or noise.
            uint32_t value = pattern % 8 * 0x01010101u;
            if (pattern % 4 == 3)
                value = pattern * (uint32_t)(x % 64 + y % 64 * 64);
            if (pattern % 16 == 5)
                value = (uint32_t)(x * 0x9E3779B1u + (uint32_t)y * 0x85EBCA6Bu) * pattern;
            store_le32(pixel(x, y), value);
        }
    run.changed.push_back(r);
}

static void scroll()
{
    copy_rect r = take_rect();
    bytes copy;
    for (int32_t y = 0; y < r.h; y++)
        copy.insert(copy.end(), pixel(r.src_x, r.src_y + y),
                    pixel(r.src_x, r.src_y + y) + (size_t)r.w * 4);
    for (int32_t y = 0; y < r.h; y++)
        memcpy(pixel(r.dst_x, r.dst_y + y), &copy[(size_t)y * (size_t)r.w * 4],
               (size_t)r.w * 4);
    run.moves.push_back(r);
    run.changed.push_back(r);
}

static void new_screen()
{
    uint8_t kind = take_u8(run.in);
    if (kind % 2) {
        run.width = 1 + take_u8(run.in);
        run.height = 1 + take_u8(run.in);
        run.pixels.assign((size_t)run.width * (size_t)run.height * 4, kind);
    }
    run.restart = true;
}

// ---------------------------------------------------------------------------------------
// The viewer's side of each frame

static void doubt(int32_t tx, int32_t ty, bool is)
{
    run.doubtful[(size_t)(ty * run.model.columns + tx)] = is;
}

static bool doubted(int32_t tx, int32_t ty)
{
    return run.doubtful[(size_t)(ty * run.model.columns + tx)];
}

// The host cannot know of a miss that was not reported, but it knows that there may be one.
static bool unserved_at(int32_t tx, int32_t ty)
{
    return run.misses.count({tx, ty}) != 0;
}

static void take_move(const copy_rect &r)
{
    FUZZ_CHECK(run.model.move_fits(r));
    bool from_doubt = false;
    for (int32_t ty = r.src_y / 64; ty <= (r.src_y + r.h - 1) / 64; ty++)
        for (int32_t tx = r.src_x / 64; tx <= (r.src_x + r.w - 1) / 64; tx++) {
            FUZZ_CHECK(!unserved_at(tx, ty));
            from_doubt = from_doubt || doubted(tx, ty);
        }
    if (from_doubt)
        for (int32_t ty = r.dst_y / 64; ty <= (r.dst_y + r.h - 1) / 64; ty++)
            for (int32_t tx = r.dst_x / 64; tx <= (r.dst_x + r.w - 1) / 64; tx++)
                doubt(tx, ty, true);
    run.model.move(r);
}

static void believe(uint64_t hash)
{
    if (hash != 0 && run.mirror.size() <= host::CACHE_MIRROR_FULL)
        run.mirror.insert(hash);
}

static void take_tile_message(const uint8_t *payload, uint32_t length)
{
    bytes content;
    FUZZ_CHECK(length > 13);
    tile_head head = get_tile_head(payload);
    FUZZ_CHECK(run.model.holds(head.tile_x, head.tile_y));
    FUZZ_CHECK(head.raw ? head.raw == 1 && length == 13 + TILE_BYTES
                        : length < 13 + TILE_BYTES);
    FUZZ_CHECK(run.model.tile_pixels(payload, length, &content));
    if (head.raw) {
        doubt(head.tile_x, head.tile_y, false);
        run.misses.erase({head.tile_x, head.tile_y});
    }
    FUZZ_CHECK(!unserved_at(head.tile_x, head.tile_y));
    bool certain = !doubted(head.tile_x, head.tile_y);
    if (certain && head.hash != 0)
        FUZZ_CHECK(head.hash == tile_hash(content.data()));
    run.model.apply(MSG_TILE, payload, length);
    if (!certain && head.hash != 0) // cached under a hash that is another tile's
        run.model.cache.assign(run.model.cache.size(), {});
    run.hashes.push_back(head.hash);
    if ((host::peer_caps & CAP_TILE_CACHE) != 0)
        believe(head.hash);
}

static void take_message(uint8_t type, const uint8_t *payload, uint32_t length)
{
    switch (type) {
    case MSG_COPY_RECTS:
        FUZZ_CHECK(length > 0 && length % 24 == 0);
        for (uint32_t at = 0; at < length; at += 24)
            take_move(get_copy_rect(payload + at));
        break;
    case MSG_TILE:
        take_tile_message(payload, length);
        break;
    case MSG_TILE_REF: {
        FUZZ_CHECK(length == 12);
        tile_ref ref = get_tile_ref(payload);
        FUZZ_CHECK(host::peer_caps & CAP_TILE_CACHE);
        FUZZ_CHECK(ref.hash != 0 && run.model.holds(ref.tile_x, ref.tile_y));
        run.model.apply(type, payload, length);
        // What was doubtful before stays so until pixels come.
        if (run.model.missed) {
            run.misses[{ref.tile_x, ref.tile_y}] = {ref.hash, run.seq + 1};
        } else {
            doubt(ref.tile_x, ref.tile_y, false);
            run.misses.erase({ref.tile_x, ref.tile_y});
        }
        break;
    }
    case MSG_CURSOR:
        FUZZ_CHECK(length == 9);
        break;
    case MSG_FRAME_END:
        FUZZ_CHECK(length == 8);
        run.last_end = get_frame_stamp(payload);
        FUZZ_CHECK(run.last_end.frame_seq == run.seq + 1);
        run.seq++;
        break;
    case MSG_TEXT_LAYER:
        FUZZ_CHECK(length >= 26);
        break;
    default:
        FUZZ_CHECK(type == MSG_WINDOW_LIST);
        break;
    }
}

static void take_frames()
{
    message_header header = {};
    const uint8_t *payload;
    size_t before = run.from_host.at;
    while (run.from_host.next(net_memory.sent, &header, &payload))
        take_message(header.type, payload, header.length);
    if (net_memory.send_limit == 0)
        return; // cut somewhere
    FUZZ_CHECK(run.from_host.at == net_memory.sent.size());
    FUZZ_CHECK(run.from_host.at == before || header.type == MSG_FRAME_END);
}

// ---------------------------------------------------------------------------------------
// What must hold

static bool same_tile(int32_t tx, int32_t ty, const uint8_t *picture)
{
    const uint8_t *at = picture + host::tile_offset(screen.padded_width, tx, ty);
    for (size_t row = 0; row < 64; row++)
        if (memcmp(at + row * (size_t)screen.padded_width * 4,
                   run.model.tile(tx, ty) + row * 256, 256) != 0)
            return false;
    return true;
}

static bool same_size()
{
    return screen.screen_width == run.model.width && screen.screen_height == run.model.height;
}

static void check_session() NO_THREAD_SAFETY_ANALYSIS
{
    host::host_session *s = run.session;
    FUZZ_CHECK((int32_t)(host::frame_seq - s->confirmed_seq) >= 0);
    FUZZ_CHECK(s->tile_budget >= host::TILE_BUDGET_MIN &&
               s->tile_budget <= host::TILE_BUDGET_MAX);
    FUZZ_CHECK(s->ema_rtt16 >= 0 && s->ema_rtt16 <= 5000 * 16);
    FUZZ_CHECK(host::cache_mirror_count() == run.mirror.size());
    FUZZ_CHECK(!host::cache_mirror_find(0));
    if (!same_size())
        return;
    for (int32_t ty = 0; ty < screen.tiles_y; ty++)
        for (int32_t tx = 0; tx < screen.tiles_x; tx++)
            if (!doubted(tx, ty) && !unserved_at(tx, ty) &&
                !host::tile_base_uncertain(screen.bases[ty * screen.tiles_x + tx],
                                           s->confirmed_seq))
                FUZZ_CHECK(same_tile(tx, ty, screen.prev_frame));
}

static bool pipeline_step()
{
    if (!host::frame_pipeline_step(run.session))
        return false;
    take_frames();
    check_session();
    return true;
}

// The viewer is silent and the screen stands still: what it told no lie about is right.
static void come_to_rest() NO_THREAD_SAFETY_ANALYSIS
{
    FUZZ_CHECK(input_record_calls().size() == run.input_calls);
    host::text_layer_reset();
    // Longer than the first walk waits for an advertisement, and than a line whose viewer
    // acknowledges nothing waits for that.
    for (int quiet = 0, steps = 0; quiet < 10; steps++) {
        FUZZ_CHECK(steps < 500);
        clock_script_now += 300;
        uint32_t before = host::frame_seq;
        if (!pipeline_step())
            return;
        bool rests = host::frame_seq == before && !run.restart && run.changed.empty();
        quiet = rests ? quiet + 1 : 0;
    }
    for (int32_t ty = 0; ty < run.model.rows && ty < screen.tiles_y; ty++)
        for (int32_t tx = 0; tx < run.model.columns && tx < screen.tiles_x; tx++) {
            // A black tile that was missed is not sent again, on purpose.
            uint64_t pitch = (uint64_t)screen.padded_width * 4;
            bool black = host::tile_is_zero(
                screen.frame_buffer + host::tile_offset(screen.padded_width, tx, ty), pitch);
            bool lost = screen.bases[ty * screen.tiles_x + tx].base_state == host::BASE_LOST;
            if (!doubted(tx, ty) && !unserved_at(tx, ty) && !(black && lost))
                FUZZ_CHECK(same_tile(tx, ty, screen.frame_buffer));
        }
}

// ---------------------------------------------------------------------------------------
// What the viewer says

static void arrive(const bytes &b)
{
    net_memory.incoming.insert(net_memory.incoming.end(), b.begin(), b.end());
}

static void say(uint8_t type, const bytes &payload)
{
    bytes message(MESSAGE_HEADER_BYTES);
    put_header(message.data(), (message_type)type, (uint32_t)payload.size());
    message.insert(message.end(), payload.begin(), payload.end());
    arrive(message);
}

static void say_hello()
{
    uint8_t kind = take_u8(run.in);
    bytes message(MESSAGE_HEADER_BYTES + CLIENT_HELLO_BYTES);
    bytes name = take_text(run.in, NAME_BYTES);
    name.push_back(0);
    put_header(message.data(), MSG_CLIENT_HELLO, CLIENT_HELLO_BYTES);
    put_client_hello(message.data() + MESSAGE_HEADER_BYTES,
                     kind & 1 ? CAP_TILE_CACHE : (uint16_t)(kind * 0x0101),
                     (const char *)name.data());
    if (kind % 32 == 30)
        take_damage(run.in, &message);
    arrive(message);
    run.from_viewer.at = MESSAGE_HEADER_BYTES + CLIENT_HELLO_BYTES;
    run.hello_done = true;
}

// The newest frame's acknowledgement, or a forged one.
static void say_ack()
{
    uint8_t kind = take_u8(run.in);
    frame_stamp stamp = run.last_end;
    if (kind % 4 == 1)
        stamp.frame_seq += take_edge(run.in);
    if (kind % 4 == 2)
        stamp.sent_ms += take_edge(run.in);
    if (kind % 4 == 3)
        stamp = {take_u32(run.in), clock_script_now - take_edge(run.in)};
    bytes payload(FRAME_ACK_BYTES);
    put_frame_stamp(payload.data(), stamp);
    if (kind % 16 == 15)
        payload.resize(take_below(run.in, 12));
    for (uint32_t times = kind >= 240 ? 1 + take_u8(run.in) : 1; times > 0; times--)
        say(MSG_FRAME_ACK, payload);
}

static void say_input()
{
    uint8_t kind = take_u8(run.in);
    bytes payload;
    switch (kind % 4) {
    case 0:
    case 1: {
        mouse_event mouse = {(int32_t)take_edge(run.in), (int32_t)take_edge(run.in),
                             (uint8_t)(kind >> 2 & 7), (uint8_t)(kind >> 5),
                             (int16_t)take_edge(run.in)};
        payload.resize(MOUSE_BYTES);
        put_mouse(payload.data(), mouse);
        say(MSG_MOUSE, payload);
        break;
    }
    case 2:
        payload.resize(KEY_BYTES);
        store_le32(payload.data(), take_u16(run.in) | (kind & 4 ? (kind & 0xF0u) << 16 : 0));
        if (kind & 8)
            payload[1] = 0; // a virtual key below 256
        say(MSG_KEY, payload);
        break;
    default:
        say(MSG_CHAR, take_bytes(run.in, kind & 4 ? 2 : take_u8(run.in) % 4));
        break;
    }
}

static uint64_t take_hash()
{
    uint8_t which = take_u8(run.in);
    if (which < 192 && !run.hashes.empty())
        return run.hashes[which % run.hashes.size()];
    return (uint64_t)take_edge(run.in) << (which % 33);
}

static void say_advert()
{
    uint8_t kind = take_u8(run.in);
    uint32_t count = take_below(run.in, 16);
    if (kind % 16 == 3)
        count = take_below(run.in, HOST_PAYLOAD_MAX / 8 + 1);
    bytes payload(count * 8);
    uint64_t hash = take_hash();
    for (uint32_t i = 0; i < count; i++) {
        store_le64(&payload[i * 8], hash);
        if (kind & 1)
            hash += kind & 2 ? 0x80000 : 1; // one probe run, or slots side by side
        else if (i < 16)
            hash = take_hash();
    }
    payload.resize(payload.size() + (kind & 4 ? kind >> 5 : 0));
    if (payload.size() <= HOST_PAYLOAD_MAX)
        say(MSG_CACHE_ADVERT, payload);
}

static void say_miss()
{
    if (take_u8(run.in) % 2 == 0 && !run.misses.empty()) { // all there is to report
        for (const auto &[tile, miss] : run.misses) {
            bytes honest(CACHE_MISS_BYTES);
            put_tile_ref(honest.data(),
                         {(uint16_t)tile.first, (uint16_t)tile.second, miss.hash});
            say(MSG_CACHE_MISS, honest);
        }
        return;
    }
    tile_ref ref = {take_u8(run.in), take_u8(run.in), take_hash()};
    if (ref.tile_x < 240 && run.model.columns > 0) {
        ref.tile_x = (uint16_t)(ref.tile_x % (run.model.columns + 1)); // one too far too
        ref.tile_y = (uint16_t)(ref.tile_y % (run.model.rows + 1));
    }
    bytes payload(CACHE_MISS_BYTES);
    put_tile_ref(payload.data(), ref);
    say(MSG_CACHE_MISS, payload);
}

// Any type with any length, and as much of the payload as the input has.
static void say_anything()
{
    uint8_t kind = take_u8(run.in);
    uint8_t head[MESSAGE_HEADER_BYTES];
    put_header(head, (message_type)take_u8(run.in), take_edge(run.in));
    if (kind % 4 == 0)
        store_le32(head, take_u32(run.in)); // the three bytes that nobody reads
    arrive(bytes(head, head + sizeof head));
    uint32_t length = get_header(head).length;
    bytes payload = take_bytes(run.in, kind % 8 == 1 ? take_u8(run.in) : length);
    if (kind % 8 == 2 && length <= 2 * HOST_PAYLOAD_MAX)
        payload.resize(length);
    arrive(payload);
}

// Notes what the control thread has had. A miss leaves its tile in doubt: the plain viewer
// has told of none.
static void catch_up()
{
    message_header header;
    const uint8_t *payload;
    while (run.from_viewer.next(net_memory.incoming, &header, &payload)) {
        run.input_calls += (header.type == MSG_MOUSE && header.length >= MOUSE_BYTES) ||
                           (header.type == MSG_KEY && header.length >= KEY_BYTES) ||
                           (header.type == MSG_CHAR && header.length >= CHAR_BYTES);
        if (header.type == MSG_CACHE_ADVERT)
            for (uint32_t at = 0; header.length - at >= 8; at += 8)
                believe(load_le64(payload + at));
        if (header.type == MSG_CACHE_MISS && header.length >= CACHE_MISS_BYTES) {
            tile_ref ref = get_tile_ref(payload);
            run.mirror.erase(ref.hash);
            auto miss = run.misses.find({ref.tile_x, ref.tile_y});
            if (miss != run.misses.end() && miss->second.hash == ref.hash)
                run.misses.erase(miss); // true: the host knows what it needs to
            else if (run.model.holds(ref.tile_x, ref.tile_y))
                doubt(ref.tile_x, ref.tile_y, true);
        }
        // An acknowledgement ahead of a frame's misses is a lie about them.
        if (header.type == MSG_FRAME_ACK && header.length >= FRAME_ACK_BYTES) {
            uint32_t acked = get_frame_stamp(payload).frame_seq;
            for (auto miss = run.misses.begin(); miss != run.misses.end();)
                if ((int32_t)(acked - miss->second.frame) >= 0) {
                    doubt(miss->first.first, miss->first.second, true);
                    miss = run.misses.erase(miss);
                } else {
                    ++miss;
                }
        }
    }
    // A payload that is too large ends the session: nothing is read after its header.
    const bytes &stream = net_memory.incoming;
    if (stream.size() - run.from_viewer.at >= MESSAGE_HEADER_BYTES)
        FUZZ_CHECK(get_header(&stream[run.from_viewer.at]).length <= HOST_PAYLOAD_MAX);
}

static void session_begins(void *argument)
{
    FUZZ_CHECK(get_header(net_memory.incoming.data()).type == MSG_CLIENT_HELLO);
    FUZZ_CHECK(get_header(net_memory.incoming.data()).length == CLIENT_HELLO_BYTES);
    run.session = (host::host_session *)argument;
    run.served = true;
    run.seq = host::frame_seq;
    // The host's own hello comes first.
    message_header header;
    const uint8_t *payload;
    size_t relay_hello = net_memory.sent.size() >= RELAY_HELLO_BYTES &&
                                 memcmp(net_memory.sent.data(), "QVRL", 4) == 0
                             ? RELAY_HELLO_BYTES
                             : 0;
    run.from_host.at = relay_hello;
    FUZZ_CHECK(run.from_host.next(net_memory.sent, &header, &payload) ||
               net_memory.send_limit == 0);
    run.model.open(screen.hello_width, screen.hello_height);
    run.model.cache.assign(1 + take_below(run.in, 16), {}); // soon full
    run.doubtful.assign((size_t)(run.model.columns * run.model.rows), false);
    if (net_memory.send_limit == 0)
        return;
    FUZZ_CHECK(header.type == MSG_SERVER_HELLO && header.length == SERVER_HELLO_BYTES);
    FUZZ_CHECK(get_server_hello(payload).width == screen.screen_width);
    FUZZ_CHECK(get_server_hello(payload).height == screen.screen_height);
}

// The host waits for bytes: everything before them has been dealt with.
static void refill()
{
    if (!run.hello_done) {
        say_hello();
        return;
    }
    if (run.session == nullptr)
        return; // a hello that was cut
    catch_up();
    check_session();
    size_t before = net_memory.incoming.size();
    while (net_memory.incoming.size() == before && run.in->left > 0 &&
           net_memory.incoming.size() < 1u << 20 && !net_memory.aborted) {
        switch (take_below(run.in, 14)) {
        case 0:
        case 1:
            draw();
            break;
        case 2:
            scroll();
            break;
        case 3:
            new_screen();
            break;
        case 4:
        case 5:
        case 6:
            if (!pipeline_step())
                return;
            break;
        case 7:
            clock_script_now += take_edge(run.in);
            cursor_script_now = {(int32_t)take_u8(run.in), 1, 1};
            break;
        case 8:
            say_ack();
            break;
        case 9:
            say_input();
            break;
        case 10:
            say_advert();
            break;
        case 11:
            say_miss();
            break;
        case 12:
            say_anything();
            break;
        default:
            arrive(take_bytes(run.in, take_u8(run.in)));
            break;
        }
    }
    if (net_memory.incoming.size() == before && !net_memory.aborted)
        come_to_rest();
}

// Of all that was injected, nothing is still down.
static void check_released()
{
    std::set<uint32_t> down;
    constexpr uint32_t KEY_UP = 2, UNICODE = 4;
    for (const auto &call : input_record_calls())
        for (const host::input_event &e : call) {
            if (e.keyboard) {
                uint32_t key = e.flags & UNICODE ? 0x10000u + e.scan : e.virtual_key;
                if (e.flags & KEY_UP)
                    down.erase(key);
                else if (key < 256 || key >= 0x10000)
                    down.insert(key);
                continue;
            }
            for (uint32_t button = 0; button < 3; button++) {
                if (e.flags & 2u << 2 * button)
                    down.insert(0x20000 + button);
                if (e.flags & 4u << 2 * button)
                    down.erase(0x20000 + button);
            }
        }
    FUZZ_CHECK(down.empty());
}

// The relay has no second viewer: the server is told to stop.
static void on_relay()
{
    if (net_memory.connections == 0)
        host::host_stop();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input in = {data, size};
    net_memory_reset();
    input_record_clear();
    server_log_clear();
    run = {};
    run.in = &in;
    uint8_t kind = take_u8(&in);
    bool relay = kind % 8 == 7;
    identity_script_reset(relay);
    identity_script_on_relay(on_relay);
    run.handshake_fails = kind % 32 == 1;
    run.duplication = (kind & 0x80) != 0;
    clock_script_now = kind & 0x40 ? 0xFFFFFF00 : 1000;
    cursor_script_now = {};
    host::host_stop_requested = 0;
    host::frame_seq = kind & 0x20 ? 0xFFFFFFF8 : 0;
    screen.hello_width = screen.hello_height = 0;
    if (kind % 32 == 2)
        net_memory.send_limit = take_u16(&in);
    thread_inline_refuse_next = kind % 32 == 3;
    thread_inline_on_start = session_begins;
    net_memory.refill = refill;
    run.width = 1 + take_u8(&in);
    run.height = 1 + take_u8(&in);
    run.pixels.assign((size_t)run.width * (size_t)run.height * 4, kind);
    run.changed.push_back({0, 0, 0, 0, run.width, run.height});

    FUZZ_CHECK(host::host_server_run() == 0);

    // Nothing stays behind but, after a bad hello, the channel until the next handshake.
    thread_inline_refuse_next = false;
    FUZZ_CHECK(net_memory.closed == 1);
    FUZZ_CHECK(run.handshakes <= 1);
    // A session that no test sees begin would pass every check.
    if (!run.handshake_fails && !relay && kind % 32 != 2)
        FUZZ_CHECK(run.handshakes == 1);
    static const secure_channel closed = {};
    if (run.served)
        FUZZ_CHECK(memcmp(&host::host_channel, &closed, sizeof closed) == 0);
    channel_reset(&host::host_channel);
    FUZZ_CHECK(identity_script_peer_name().empty());
    check_released();
    return 0;
}
