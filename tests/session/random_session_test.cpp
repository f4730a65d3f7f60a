// Fakes: stepped random_desktop identity_script input_record server_log_record window_posts
// Fakes: console_script cache_disk_memory
// Parts: 2
//
// One property over everything: whatever happens, and in whatever order, the viewer shows the
// host's screen. The whole host server with its control thread and capture plays against the
// viewer's receive loop, decoder and cache, through handshake and sealed records. Under them
// all is scripted: the desktop, the clock, which thread runs to which point, which bytes
// arrive when and where the connection breaks; and the script is random.
//
// What must hold: when nothing is under way, the viewer shows prev_frame wherever the host is
// certain of it, and all that its cache holds has the hash under which it is kept. When the
// desktop rests too, the viewer shows the desktop, in all four bytes. Two exceptions are made
// on purpose and known tile by tile: a tile that was missed and is black now, and a tile under
// a console that is shown as text, of which the viewer has every cell. No tile waits for ever
// behind others that change all the time. The first walk waits for the viewer's advertisement,
// but not too long. A cache that comes back from its file is the one that went into it, or
// empty, whatever became of disk, file and process meanwhile. Of a viewer that says what it
// holds and nothing else, the host's replica has the very keys, and what such a viewer is
// referred to after its first miss it has. And a session ends when its connection does, not
// before.
//
// The sessions of `make test` are always the same ones, so what they did can be asserted. In
// the environment:
//   QV_SEED=n       plays that one, which a failure has named
//   QV_SEEDS=n      plays the first n
//   QV_SECONDS=n    plays new ones for so long
//   QV_PART=i/n     plays one of n parts of them
#include "host/cache_replica.h"
#include "host/capture.h"
#include "host/control_thread.h"
#include "host/cursor.h"
#include "host/flow_control.h"
#include "host/frame_pipeline.h"
#include "host/host_channel.h"
#include "host/host_platform.h"
#include "host/host_server.h"
#include "host/intra_tile.h"
#include "host/lz4_block.h"
#include "host/out_buffer.h"
#include "host/screen.h"
#include "host/text_layer.h"
#include "host/tile_hash.h"
#include "host/tile_ops.h"
#include "protocol/handshake.h"
#include "tests/fakes/cache_disk_memory.h"
#include "tests/fakes/console_script.h"
#include "tests/fakes/identity_script.h"
#include "tests/fakes/input_record.h"
#include "tests/fakes/random_desktop.h"
#include "tests/fakes/server_log_record.h"
#include "tests/fakes/stepped.h"
#include "tests/test.h"
#include "viewer/frame_decode.h"
#include "viewer/tile_cache.h"
#include "viewer/viewer_channel.h"

#include <chrono>
#include <deque>
#include <map>
#include <monocypher.h>
#include <set>
#include <string.h>
#include <string>
#include <vector>

using host::screen;
using viewer::frame;
using viewer::tile_cache;

// ---------------------------------------------------------------------------------------
// What happened

static uint64_t seed_playing, steps;
static std::map<std::string, uint64_t> happened; // over all sessions

// The threads stand wherever they are and cannot be unwound, so a failure ends the program.
[[noreturn]] static void broken(const char *what, int line)
{
    printf("QV_SEED=%llu: does not hold at step %llu: %s (line %d)\n",
           (unsigned long long)seed_playing, (unsigned long long)steps, what, line);
    fflush(stdout);
    _Exit(1);
}

#define MUST(holds)                                                                            \
    do {                                                                                       \
        if (!(holds))                                                                          \
            broken(#holds, __LINE__);                                                          \
    } while (0)

// ---------------------------------------------------------------------------------------
// The seams that are this test's own

static uint32_t pointer; // where it is, in one number

static void note_walked();

host::cursor_state host::cursor_read()
{
    note_walked();
    if (stepped_hook.stops(AT_SEAM))
        stepped_stop(AT_SEAM); // between walk and frame end
    return {.x = (int32_t)pointer, .y = 0, .visible = 1};
}

void host::host_platform_dpi_aware()
{
}

void host::host_platform_real_time()
{
}

// ---------------------------------------------------------------------------------------
// One session

static struct {
    stepped_thread *server, *viewer;
    stepped_thread *control;             // of the newest session
    host::host_session *session;         // the same
    bool cached;                         // the viewer has a cache,
    bool wants_cache;                    // and says so
    bool wants_text;                     // likewise of consoles
    bool advertises;                     // what it holds, and some that it does not
    bool honest;                         // what it advertised is what it holds
    std::set<uint64_t> hashes;           // of all tiles sent and referred to
    bool miss_taken;                     // the host knows of a miss,
    uint32_t miss_limit;                 // and of this frame the walk may have been over
    bool acked_any;                      // the viewer has acknowledged a frame,
    uint32_t acked;                      // this one last
    bool filed;                          // its cache is kept in a file,
    stepped_thread *saver;               // saves it while the session goes on
    uint32_t saves_before;               // of the session
    uint32_t disk_calls;                 // since the last reading began
    uint32_t disk_fails_at;              // one of them; 0: none
    uint32_t killed_at;                  // likewise: what is on the disk then is what stays
    bool intra;                          // the host has sent an intra tile
    bool hashes_next;                    // the viewer sent an advertisement's header
    bool walked;                         // the session's first walk is over
    uint32_t advertised, adverts_taken;  // advertisements sent, and entered
    uint32_t first_adverts;              // sent before anything else
    bool watching;                       // its hello was answered
    bool refused;                        // with a screen that is none
    int32_t acks_to_lose;                // before they are sent
    int32_t acks_under_way;              // sent since the host last had all
    bool calm;                           // threads stop only where they have to
    bool busy;                           // all of the screen changes all the time
    int32_t pace_ms;                     // a step takes up to so long
    size_t keys_sent;                    // presses and releases
    size_t parsed;                       // bytes of the outgoing buffer that were looked at
    int32_t moves_captured;              // when the server took the lock,
    int32_t width_before, height_before; // likewise the screen's size
    text_layer_head text;                // as last sent
    std::deque<int64_t> lock_takers;     // messages for which the control thread will take the
                                         // lock: tile of a miss, -1 for hashes, or -2 for
                                         // the last ones of an advertisement
    std::vector<uint8_t> missed;         // tiles of the screen: not sent again since a miss
    int32_t openings;                    // of the duplication, as last seen
    std::vector<uint8_t> owed;           // tiles of the screen: not sent since it was opened
    std::vector<int64_t> waited;         // tiles of the screen: others sent while it was left
    std::vector<uint64_t> keys;          // the cache's, as last seen
} run;

static int64_t grid_tile(int32_t tx, int32_t ty)
{
    return tx < screen.tiles_x && ty < screen.tiles_y ? (int64_t)ty * screen.tiles_x + tx : -1;
}

static void fit_grid()
{
    size_t tiles = (size_t)screen.tiles_x * (size_t)screen.tiles_y;
    if (run.missed.size() != tiles) {
        run.missed.assign(tiles, 0);
        run.owed.assign(tiles, 0);
        run.waited.assign(tiles, 0);
    }
}

// Whether the layer that the viewer was told of last covers all of a tile.
static bool under_console(int32_t tx, int32_t ty)
{
    const text_layer_head &text = run.text;
    int64_t x = (int64_t)tx * TILE_SIZE, y = (int64_t)ty * TILE_SIZE;
    return text.rows != 0 && text.x <= x && text.y <= y &&
           (int64_t)text.x + text.w >= x + TILE_SIZE &&
           (int64_t)text.y + text.h >= y + TILE_SIZE;
}

// Looks at the messages that the host appended since the last look; returns how many tiles.
static int32_t look_at_messages()
{
    fit_grid();
    int32_t tiles = 0;
    const uint8_t *bytes = host::out_bytes();
    tile_ref zeros = {}; // where the message before put them, if it did
    for (size_t used = host::out_used(); run.parsed < used;) {
        MUST(used - run.parsed >= MESSAGE_HEADER_BYTES);
        message_header header = get_header(bytes + run.parsed);
        const uint8_t *payload = bytes + run.parsed + MESSAGE_HEADER_BYTES;
        MUST(header.length <= used - run.parsed - MESSAGE_HEADER_BYTES);
        run.parsed += MESSAGE_HEADER_BYTES + header.length;

        int64_t tile = -1;
        tile_ref below = zeros;
        zeros = {};
        if (header.type == MSG_TILE) {
            tile_head head = get_tile_head(payload);
            tile = grid_tile(head.tile_x, head.tile_y);
            run.hashes.insert(head.hash);
            if (head.hash == 0 && below.hash != 0 && head.tile_x == below.tile_x &&
                head.tile_y == below.tile_y) {
                happened["tile intra"]++;
                run.intra = true;
                tiles--; // one with the reference
            } else if (head.hash == 0)
                happened[tile < 0 ? "tile outside, cleared" : "tile not worth a slot"]++;
            else if (!head.raw)
                happened["tile compressed"]++;
            else if (memcmp(payload + TILE_HEAD_BYTES, payload + TILE_HEAD_BYTES + 4, 1000) ==
                     0)
                happened["tile raw, in doubt"]++; // a plain colour would compress
            else
                happened["tile raw"]++;
            tiles++;
        } else if (header.type == MSG_TILE_REF) {
            tile_ref ref = get_tile_ref(payload);
            tile = grid_tile(ref.tile_x, ref.tile_y);
            run.hashes.insert(ref.hash);
            happened["tile by reference"]++;
            tiles++;
            if (ref.hash == host::intra_zero_hash())
                zeros = ref;
        } else if (header.type == MSG_COPY_RECTS) {
            happened["move"] += header.length / COPY_RECT_BYTES;
            if (run.moves_captured == 0)
                happened["move found"] += header.length / COPY_RECT_BYTES;
            if (header.length / COPY_RECT_BYTES < (uint32_t)run.moves_captured)
                happened["move left out beside others"]++;
        } else if (header.type == MSG_TEXT_LAYER) {
            MUST(run.wants_text);
            text_layer_head head = get_text_layer_head(payload);
            happened[head.rows == 0                ? "console gone"
                     : head.row_count == head.rows ? "console"
                                                   : "console's rows"]++;
            if (head.rows != 0 && head.rows == run.text.rows && head.cols == run.text.cols &&
                (head.x != run.text.x || head.y != run.text.y))
                happened["console moved"]++;
            run.text = head;
        } else if (header.type == MSG_CURSOR) {
            happened["pointer"]++;
        } else if (header.type == MSG_FRAME_END) {
            happened["frame"]++;
        }
        if (tile >= 0) {
            run.missed[(size_t)tile] = 0;
            run.owed[(size_t)tile] = 0;
        }
    }
    return tiles;
}

static void note_locked(const lock *l)
{
    if (l != &host::host_lock || stepped_self() != run.server)
        return;
    run.moves_captured = screen.move_count;
    run.width_before = screen.screen_width;
    run.height_before = screen.screen_height;
}

// A walk has ended, or something else under the lock; sent is the number of tiles. A tile
// that is left for the next walk is nearer to its turn by each that was sent, and where frames
// are limited in bytes by one of them at least.
static void note_walk(int32_t sent) NO_THREAD_SAFETY_ANALYSIS
{
    int64_t grid = (int64_t)tiles_for(screen.hello_width) * tiles_for(screen.hello_height);
    int32_t left = 0;
    for (int32_t ty = 0; ty < tiles_for(screen.hello_height); ty++)
        for (int32_t tx = 0; tx < tiles_for(screen.hello_width); tx++) {
            int64_t tile = grid_tile(tx, ty);
            if (tile < 0)
                continue;
            if (screen.dirty_map[tile] == 0 || under_console(tx, ty)) {
                run.waited[(size_t)tile] = 0;
                continue;
            }
            left++;
            // One in doubt may wait for its acknowledgement instead.
            if (run.session &&
                host::tile_base_uncertain(screen.bases[tile], run.session->confirmed_seq))
                continue;
            run.waited[(size_t)tile] += host::paces_bytes ? sent > 0 : sent;
            MUST(run.waited[(size_t)tile] <= grid);
        }
    if (left == 0 || sent == 0)
        return;
    happened["walk ended early"]++;
    if (host::out_used() > RECORD_MAX - 2 * TILE_BYTES)
        happened["record full"]++;
}

// What frame_reset leaves behind, in a session.
static bool must_send_all() NO_THREAD_SAFETY_ANALYSIS
{
    bool all = screen.tiles_x > 0;
    for (int32_t i = 0; all && i < screen.tiles_x * screen.tiles_y; i++)
        all = screen.bases[i].must_send != 0;
    return all;
}

static void note_unlocking(const lock *l)
{
    if (l != &host::host_lock)
        return;
    stepped_thread *self = stepped_self();
    if (self == run.server) {
        int32_t sent = look_at_messages();
        bool resized = run.width_before != screen.screen_width ||
                       run.height_before != screen.screen_height;
        if (resized) {
            run.missed.assign(run.missed.size(), 0);
            run.waited.assign(run.waited.size(), 0);
        }
        // A capture that begins anew sends everything again.
        if (run.openings != desktop.openings && run.session && screen.first_frame_flushed)
            run.owed.assign(run.owed.size(), 1);
        run.openings = desktop.openings;
        note_walk(sent);
        if (screen.first_frame_flushed && run.session) {
            if (resized)
                happened["capture restarted, other size"]++;
            else if (must_send_all())
                happened["capture restarted, same size"]++;
        }
        if (sent > 0 && run.session && run.session->acked_seq == host::frame_seq &&
            run.session->confirmed_seq != host::frame_seq)
            happened["stall"]++;
    } else if (self && self == run.control) {
        MUST(!run.lock_takers.empty());
        int64_t place = run.lock_takers.front();
        run.lock_takers.pop_front();
        run.adverts_taken += place == -2;
        if (place < 0 || run.session->generation != host::session_generation)
            return;
        if (!run.miss_taken)
            run.miss_limit = host::frame_seq + 1;
        run.miss_taken = true;
        fit_grid();
        int64_t tile = grid_tile((int32_t)(place & 0xFFFF), (int32_t)(place >> 16));
        if (tile >= 0) {
            run.missed[(size_t)tile] = 1;
            desktop.spot_x = (int32_t)(place & 0xFFFF) * TILE_SIZE;
            desktop.spot_y = (int32_t)(place >> 16) * TILE_SIZE;
        }
    }
}

// The session's first walk waits for an advertisement as long as it may, and no longer.
static void note_walked()
{
    if (run.walked || !run.session)
        return;
    run.walked = true;
    if (!run.wants_cache) {
        happened["first walk, no cache"]++;
        return;
    }
    bool late = stepped_clock - run.session->hello_sent_ms >= run.session->advert_wait_ms;
    MUST(late || run.session->advert_over != 0);
    MUST(late || run.adverts_taken >= run.first_adverts); // what ends the wait is in the mirror
    if (run.adverts_taken > 0)
        happened["first walk after the advertisement"]++;
    else if (run.advertised > 0)
        happened["first walk before the advertisement"]++;
    else
        happened["first walk, nothing advertised"]++;
}

static void note_started(stepped_thread *t, void (*routine)(void *), void *argument)
{
    if (run.control) {
        run.saver = t;
        return;
    }
    MUST(routine == host::control_thread);
    run.control = t;
    run.session = (host::host_session *)argument;
}

// Opens a record that the viewer has just sealed, and looks what it is. False: an
// acknowledgement, which gets lost before it was sealed.
static bool look_at_answer(const uint8_t *record, size_t n)
{
    channel_sender *sender = &viewer::viewer_channel.sender;
    uint8_t nonce[24] = {};
    store_le64(nonce, sender->send_counter - 1);
    uint8_t text[64];
    size_t length = n - RECORD_HEADER_BYTES - RECORD_TAG_BYTES;
    if (run.hashes_next || length > sizeof text) {
        run.hashes_next = false;
        return true;
    }
    MUST(crypto_aead_unlock(text, record + n - RECORD_TAG_BYTES, sender->send_key, nonce,
                            record, RECORD_HEADER_BYTES, record + RECORD_HEADER_BYTES,
                            length) == 0);
    if (length < MESSAGE_HEADER_BYTES)
        return true;
    message_header header = get_header(text);
    if (header.type == MSG_CACHE_ADVERT) { // 256 hashes are entered in one go
        for (uint32_t left = header.length / 8; left > 256; left -= 256)
            run.lock_takers.push_back(-1);
        run.lock_takers.push_back(-2);
        run.hashes_next = header.length != 0;
        run.advertised++;
    }
    if (length != MESSAGE_HEADER_BYTES + header.length)
        return true;
    if (header.type == MSG_CACHE_MISS) {
        happened["miss"]++;
        if (run.honest && run.miss_taken && run.acked_any) {
            MUST((int32_t)(run.acked + 1 - run.miss_limit) <= 0);
            happened["miss on its way at the first"]++;
        }
        if (load_le64(text + MESSAGE_HEADER_BYTES + 4) == host::intra_zero_hash())
            happened[run.intra ? "miss of the zeros, with intra tiles" : "miss of the zeros"]++;
        run.lock_takers.push_back(load_le32(text + MESSAGE_HEADER_BYTES));
    } else if (header.type == MSG_FRAME_ACK) {
        run.acked_any = true;
        run.acked = get_frame_stamp(text + MESSAGE_HEADER_BYTES).frame_seq;
        if (run.acks_to_lose > 0) {
            run.acks_to_lose--;
            sender->send_counter--;
            happened["acknowledgement lost"]++;
            return false;
        }
        run.acks_under_way++;
    }
    return true;
}

static bool note_sends(net_socket, const uint8_t *data, size_t n)
{
    if (stepped_self() == run.server) {
        if (host::host_channel.sender.encrypted) {
            look_at_messages();
            run.parsed = 0;
        }
        return true;
    }
    return !viewer::viewer_channel.sender.encrypted || look_at_answer(data, n);
}

static bool note_stops(stepped_place place)
{
    if (run.saver && stepped_self() == run.saver)
        return one_in(600); // it takes the lock for every slot
    return !run.calm && one_in(place == AT_CLOCK ? 6 : 3);
}

// ---------------------------------------------------------------------------------------
// The viewer: what viewer_session_run does, without a window. Its cache goes on from session
// to session: in most seeds it just stays, with as few slots as the seed wants; in the others
// it is closed, and opened from its file.

// Some that the viewer holds, in random order, and some that it does not.
static void advertise() NO_THREAD_SAFETY_ANALYSIS
{
    run.honest = false;
    std::vector<uint8_t> hashes;
    auto add = [&](uint64_t hash) {
        hashes.resize(hashes.size() + 8);
        store_le64(hashes.data() + hashes.size() - 8, hash);
    };
    for (uint32_t i = 0; i < tile_cache.cache_capacity; i++)
        if (tile_cache.cache_keys[i] != 0 && hashes.size() < 200 * 8)
            add(tile_cache.cache_keys[i] ^ (one_in(8) ? 1 : 0));
    for (uint64_t hash : pattern_hashes())
        if (one_in(3))
            add(hash);
    uint8_t header[MESSAGE_HEADER_BYTES];
    put_header(header, MSG_CACHE_ADVERT, (uint32_t)hashes.size());
    if (viewer::viewer_send(header, sizeof header) && !hashes.empty())
        viewer::viewer_send(hashes.data(), hashes.size());
    happened["advertisement"]++;
}

static bool exchange_hellos()
{
    uint8_t message[MESSAGE_HEADER_BYTES + SERVER_HELLO_BYTES];
    put_header(message, MSG_CLIENT_HELLO, CLIENT_HELLO_BYTES);
    uint16_t caps = (uint16_t)((run.wants_cache ? CAP_TILE_CACHE : 0) |
                               (run.wants_text ? CAP_TEXT_LAYER : 0));
    put_client_hello(message + MESSAGE_HEADER_BYTES, caps, "v");
    viewer::viewer_send(message, MESSAGE_HEADER_BYTES + CLIENT_HELLO_BYTES);
    if (!viewer::viewer_recv(message, sizeof message))
        return false;
    MUST(get_header(message).type == MSG_SERVER_HELLO);
    server_hello hello = get_server_hello(message + MESSAGE_HEADER_BYTES);
    run.refused = !viewer::frame_open(hello.width, hello.height);
    MUST(!run.refused || hello.width == 0);
    return !run.refused;
}

static void check_cache(bool all);

static viewer::tile_cache_record staying; // while there is one from a file
static std::map<std::string, sparse_bytes> disk_of_the_killed;

static bool disk_works(const disk_memory_call &)
{
    run.disk_calls++;
    if (run.disk_calls == run.killed_at)
        disk_of_the_killed = disk_memory.files;
    if (run.saver && stepped_self() == run.saver && one_in(100))
        stepped_stop(AT_SEAM);
    return run.disk_calls != run.disk_fails_at;
}

// One that was damaged stays so until something new is saved.
static bool file_is_whole()
{
    const std::vector<uint8_t> head = {0x31, 0x43, 0x56, 0x51, 0, 0x20, 0, 0, 0, 0x40, 0, 0};
    auto file = disk_memory.files.find(DISK_MEMORY_PATH);
    return file != disk_memory.files.end() && file->second.size() == 134283280 &&
           file->second.part(0, 12) == head;
}

// What is wrong with the file at most: nobody can tell other pixels from the right ones.
static void damage_file()
{
    sparse_bytes *file = &disk_memory.files[DISK_MEMORY_PATH];
    uint8_t other = (uint8_t)(1 + below(255));
    switch (below(4)) {
    case 0:
        file->resize(rnd.below(file->size() + 1));
        break;
    case 1: { // of what the header must say
        uint64_t at = rnd.below(12);
        other ^= file->part(at, 1)[0];
        file->write(at, &other, 1);
        break;
    }
    case 2:
        *file = {};
        break;
    default:
        run.disk_fails_at = 1 + (uint32_t)below(3); // opening, header or keys
        break;
    }
    happened["cache file damaged"]++;
}

static void open_cache() NO_THREAD_SAFETY_ANALYSIS
{
    staying = tile_cache;
    tile_cache = {};
    run.disk_calls = run.disk_fails_at = run.killed_at = 0;
    if (disk_memory.files.count(DISK_MEMORY_PATH) != 0 && one_in(4))
        damage_file();
    bool good = file_is_whole() && run.disk_fails_at == 0;
    disk_memory.no_folder = !run.cached;
    viewer::tile_cache_open();
    run.disk_fails_at = 0;
    run.saves_before = disk_memory.replaced;
    MUST(tile_cache.cache_enabled == run.cached);
    run.keys.assign(viewer::CACHE_CAPACITY, 0);
    if (!run.cached)
        return;
    MUST(tile_cache.cache_capacity == viewer::CACHE_CAPACITY);
    std::vector<uint8_t> keys(viewer::CACHE_CAPACITY * 8);
    if (good)
        keys = disk_memory.files[DISK_MEMORY_PATH].part(16, keys.size());
    size_t loaded = 0;
    for (size_t i = 0; i < viewer::CACHE_CAPACITY; i++) {
        MUST(tile_cache.cache_keys[i] == load_le64(&keys[i * 8]));
        loaded += tile_cache.cache_keys[i] != 0;
    }
    if (loaded > 0)
        happened["cache file loaded"]++;
    check_cache(true);
}

// Each key in the file has its own pixels, whatever became of the saves.
static void check_file()
{
    if (!file_is_whole())
        return;
    const sparse_bytes &file = disk_memory.files[DISK_MEMORY_PATH];
    std::vector<uint8_t> keys = file.part(16, viewer::CACHE_CAPACITY * 8);
    for (size_t i = 0; i < viewer::CACHE_CAPACITY; i++) {
        uint64_t key = load_le64(&keys[i * 8]);
        MUST(key == 0 ||
             tile_hash(file.part(65552 + i * TILE_BYTES, TILE_BYTES).data()) == key);
    }
}

// As the window does when it is destroyed.
static void close_cache() NO_THREAD_SAFETY_ANALYSIS
{
    bool saves = run.saver && stepped_at(run.saver) != AT_END;
    viewer::tile_cache_save_stop();
    if (saves)
        happened["save told to stop"]++;
    happened["save while the session goes on"] += disk_memory.replaced - run.saves_before;
    if (run.cached)
        check_cache(true);
    bool dirty = tile_cache.cache_dirty;
    uint32_t before = disk_memory.replaced;
    run.disk_calls = 0;
    if (one_in(5))
        run.disk_fails_at = 1 + (uint32_t)below(one_in(2) ? 5 : 40);
    else if (one_in(4))
        run.killed_at = 1 + (uint32_t)below(one_in(2) ? 5 : 40);
    lock_enter(&viewer::frame_lock);
    viewer::tile_cache_save();
    bool failed = tile_cache.cache_dirty;
    viewer::tile_cache_close();
    lock_leave(&viewer::frame_lock);
    MUST(!failed || (dirty && run.disk_calls >= run.disk_fails_at));
    MUST(disk_memory.replaced == before + (dirty && !failed));
    if (dirty)
        happened[failed ? "save failed" : "save at the end"]++;
    if (run.killed_at != 0 && run.disk_calls >= run.killed_at) {
        disk_memory.files = disk_of_the_killed;
        happened["killed while saving"]++;
    }
    run.disk_fails_at = run.killed_at = 0;
    check_file();
    tile_cache = staying;
}

static void viewer_life(void *argument)
{
    net_socket sock = *(net_socket *)argument;
    if (handshake_as_viewer(&viewer::viewer_channel, sock, "secret") && exchange_hellos()) {
        if (run.filed)
            open_cache();
        else if (run.advertises)
            advertise();
        run.first_adverts = run.advertised;
        run.watching = true;
        viewer::viewer_recv_thread(nullptr);
        if (run.filed)
            close_cache();
    }
    net_abort(sock);
    net_close(sock);
    channel_reset(&viewer::viewer_channel);
}

static void renew_cache() NO_THREAD_SAFETY_ANALYSIS
{
    memset(tile_cache.cache_keys, 0, viewer::CACHE_CAPACITY * sizeof(uint64_t));
    memset(tile_cache.cache_victim, 0, viewer::CACHE_CAPACITY / 2);
    tile_cache.cache_capacity = one_in(3) ? viewer::CACHE_CAPACITY : 2u << below(4);
    run.keys.assign(tile_cache.cache_capacity, 0);
}

// ---------------------------------------------------------------------------------------
// What must hold

// Whether the viewer shows a tile of a picture; pitch is the distance of the picture's rows.
static bool viewer_shows(const uint8_t *tile, size_t pitch, int32_t tx,
                         int32_t ty) NO_THREAD_SAFETY_ANALYSIS
{
    size_t stride = (size_t)frame.frame_stride * PIXEL_BYTES;
    const uint8_t *shown = frame.frame_pixels + host::tile_offset(frame.frame_stride, tx, ty);
    for (size_t row = 0; row < TILE_SIZE; row++)
        if (memcmp(tile + row * pitch, shown + row * stride, TILE_ROW_BYTES) != 0)
            return false;
    return true;
}

// All threads wait for something that is under the test's hand, and nothing is under way.
static bool nothing_under_way()
{
    for (int direction = 0; direction < 2; direction++)
        if (stepped_under_way((stepped_direction)direction) != 0 ||
            stepped_unread((stepped_direction)direction) != 0)
            return false;
    return run.watching && !stepped_broken() && run.session &&
           stepped_at(run.viewer) == AT_RECV && stepped_at(run.control) == AT_RECV &&
           !stepped_can_run(run.viewer) && !stepped_can_run(run.control) &&
           host::out_used() == 0; // the server has changed nothing that it did not send
}

// Where the host is certain of a tile, the viewer shows prev_frame. At rest it is certain of
// all but the black ones that were missed, or it would go on sending pixels for differences.
static void check_certain_tiles(bool at_rest) NO_THREAD_SAFETY_ANALYSIS
{
    size_t pitch = (size_t)screen.padded_width * PIXEL_BYTES;
    fit_grid();
    for (int32_t ty = 0; ty < screen.tiles_y && ty < frame.frame_rows / TILE_SIZE; ty++)
        for (int32_t tx = 0; tx < screen.tiles_x && tx < frame.frame_stride / TILE_SIZE; tx++) {
            const host::tile_base &base = screen.bases[ty * screen.tiles_x + tx];
            const uint8_t *tile =
                screen.prev_frame + host::tile_offset(screen.padded_width, tx, ty);
            if (!host::tile_base_uncertain(base, run.session->confirmed_seq)) {
                MUST(viewer_shows(tile, pitch, tx, ty));
                continue;
            }
            bool known = run.missed[(size_t)grid_tile(tx, ty)] != 0 ||
                         under_console(tx, ty); // its turn comes when that goes
            MUST(!at_rest || known);
        }
    happened["certain tiles compared"]++;
}

// Every cached tile has the hash under which it is kept. Looks at those that are new, or all.
static void check_cache(bool all) NO_THREAD_SAFETY_ANALYSIS
{
    for (uint32_t i = 0; i < tile_cache.cache_capacity; i++) {
        uint64_t key = tile_cache.cache_keys[i];
        if (key == 0 || (key == run.keys[i] && !all))
            continue;
        MUST(tile_hash(tile_cache.cache_tiles + (size_t)i * TILE_BYTES) == key);
        if (run.keys[i] != 0 && run.keys[i] != key)
            happened["eviction"]++;
        run.keys[i] = key;
    }
}

// The host's replica has the keys that the viewer's cache has.
static void check_replica() NO_THREAD_SAFETY_ANALYSIS
{
    if (!run.honest)
        return;
    std::set<uint64_t> held;
    for (uint32_t i = 0; i < tile_cache.cache_capacity; i++)
        if (tile_cache.cache_keys[i] != 0)
            held.insert(tile_cache.cache_keys[i]);
    for (uint64_t hash : held)
        MUST(host::cache_replica_holds(hash));
    size_t dropped = 0;
    for (uint64_t hash : run.hashes) {
        MUST(host::cache_replica_holds(hash) == (held.count(hash) != 0));
        dropped += hash != 0 && held.count(hash) == 0;
    }
    happened["replica compared at rest"]++;
    if (dropped > 0)
        happened["replica of what was dropped"]++;
}

// The viewer shows the desktop as far as its picture goes, and black beyond the edge.
static void check_picture() NO_THREAD_SAFETY_ANALYSIS
{
    static const uint8_t black[TILE_BYTES] = {};
    size_t pitch = (size_t)screen.padded_width * PIXEL_BYTES;
    int32_t width = screen.screen_width, height = screen.screen_height;
    MUST(!host::capture_is_duplication() ||
         (width == desktop.width && height == desktop.height));
    int32_t columns = width < desktop.width ? width : desktop.width;
    for (int32_t y = 0; y < height && y < desktop.height; y++) // captured is what is there
        MUST(memcmp(screen.frame_buffer + (size_t)y * pitch,
                    &desktop.pixels[(size_t)y * (size_t)desktop.width],
                    (size_t)columns * PIXEL_BYTES) == 0);
    for (int32_t ty = 0; ty < frame.frame_rows / TILE_SIZE; ty++)
        for (int32_t tx = 0; tx < frame.frame_stride / TILE_SIZE; tx++) {
            int64_t on_screen = grid_tile(tx, ty);
            if (on_screen < 0) {
                MUST(viewer_shows(black, TILE_ROW_BYTES, tx, ty));
                continue;
            }
            if (under_console(tx, ty)) {
                happened["tile under a console"]++;
                continue;
            }
            MUST(run.owed[(size_t)on_screen] == 0);
            const uint8_t *tile =
                screen.frame_buffer + host::tile_offset(screen.padded_width, tx, ty);
            if (viewer_shows(tile, pitch, tx, ty))
                continue;
            bool known = run.missed[(size_t)on_screen] != 0 && host::tile_is_zero(tile, pitch);
            MUST(known);
            happened["black tile missed and kept"]++;
        }
    happened["picture compared at rest"]++;
}

// The viewer shows the console in front where it stands, with all of its cells, and none when
// none is in front or it did not ask for text.
static void check_console() NO_THREAD_SAFETY_ANALYSIS
{
    bool on = run.wants_text && console_now.in_front;
    MUST(frame.text_active == on);
    MUST(host::text_layer.text_active == on);
    MUST(console_now.attached == 0);
    if (!on)
        return;
    const host::console_view &view = console_now.view;
    MUST(frame.text_x == view.left && frame.text_w == view.right - view.left);
    MUST(frame.text_y == view.top && frame.text_h == view.bottom - view.top);
    MUST(frame.text_cols == view.cols && frame.text_rows == view.rows);
    for (size_t i = 0; i < console_now.cells.size(); i++) {
        const host::console_cell &cell = console_now.cells[i];
        MUST(load_le16(frame.text_cells + i * 3) == cell.character);
        MUST(frame.text_cells[i * 3 + 2] == (uint8_t)cell.attributes);
    }
    happened["console compared at rest"]++;
}

// Every key that the viewer sent was pressed and released on the host, in order.
static void check_input()
{
    std::vector<std::vector<host::input_event>> calls = input_record_calls();
    MUST(calls.size() == run.keys_sent);
    for (size_t i = 0; i < calls.size(); i++) {
        uint32_t value = (uint32_t)('A' + (i & ~(size_t)1) % 26);
        host::input_event key = host::input_from_key(i % 2 == 0 ? value | KEY_PRESS : value);
        MUST(calls[i].size() == 1);
        MUST(calls[i][0].virtual_key == key.virtual_key);
        MUST(calls[i][0].flags == key.flags);
    }
}

// ---------------------------------------------------------------------------------------
// Steps

static void run_thread(stepped_thread *t)
{
    stepped_run(t);
    // The session's own record is gone when its last owner has left.
    if (run.session && !stepped_host_end_open())
        run.session = nullptr;
}

static void acks_arrived()
{
    if (run.acks_under_way > 1)
        happened["acknowledgements that came together"]++;
    run.acks_under_way = 0;
}

static void deliver(stepped_direction direction)
{
    size_t under_way = stepped_under_way(direction);
    if (under_way == 0)
        return;
    size_t n = under_way;
    if (one_in(4))
        n = 1 + rnd.below(8);
    else if (one_in(2))
        n = 1 + rnd.below(under_way);
    n = n > under_way ? under_way : n;
    stepped_deliver(direction, n);
    if (direction == TO_HOST && n == under_way)
        acks_arrived();
}

// Everything but the server goes as far as it can.
static void others_run_out()
{
    for (bool any = true; any;) {
        any = false;
        for (int direction = 0; direction < 2; direction++) {
            size_t n = stepped_under_way((stepped_direction)direction);
            stepped_deliver((stepped_direction)direction, n);
            any = any || n > 0;
        }
        acks_arrived();
        for (stepped_thread *t : stepped_threads())
            if (t != run.server && stepped_can_run(t)) {
                run_thread(t);
                any = true;
            }
    }
}

// The server goes on to where it would next look at the clock to pace itself, through at
// most one iteration.
static void server_runs()
{
    if (stepped_can_run(run.server))
        run_thread(run.server);
}

static void random_thread_runs()
{
    std::vector<stepped_thread *> all = stepped_threads();
    stepped_thread *t = all[rnd.below(all.size())];
    if (stepped_can_run(t))
        run_thread(t);
}

static void random_mode()
{
    if (one_in(3))
        desktop_resize(desktop.width, desktop.height);
    else if (one_in(4) && screen.hello_width > 0)
        desktop_resize(screen.hello_width, screen.hello_height);
    else if (one_in(3) && screen.hello_width > 0)
        desktop_resize(screen.hello_width, 1 + below(2 * screen.hello_height));
    else if (one_in(3) && screen.hello_width > 0)
        desktop_resize(1 + below(2 * screen.hello_width), screen.hello_height);
    else
        desktop_resize(1 + below(one_in(2) ? 280 : 65), 1 + below(one_in(2) ? 193 : 65));
}

// The estimator goes on from there.
static void set_budget(int32_t budget)
{
    if (!run.session)
        return;
    run.session->estimator.tile_budget = budget;
    run.session->tile_budget = budget;
}

// A console comes to the front or leaves it, moves, gets another size, writes or scrolls.
static void random_console()
{
    host::console_view view = console_now.view;
    int32_t dice = below(8);
    if (console_now.cells.empty() || dice == 0) {
        view.cols = 1 + below(one_in(8) ? host::TEXT_COLS_MAX : 40);
        view.rows = 1 + below(one_in(8) ? host::TEXT_ROWS_MAX : 12);
        console_script_show(view);
    }
    if (dice < 2) { // it may reach beyond the screen, and hold all of it
        host::capture_box box = desktop_box();
        view.left = one_in(2) ? box.left : -below(100);
        view.top = one_in(2) ? box.top : -below(100);
        view.right = one_in(2) ? box.right : desktop.width + below(100);
        view.bottom = one_in(2) ? box.bottom : desktop.height + below(100);
        console_now.view = view;
    } else if (dice == 2) {
        console_now.in_front = !console_now.in_front;
    } else if (dice == 3) {
        console_now.in_front = true;
        console_now.reads_until_failure = -1;
    } else if (dice == 4 && one_in(2)) {
        console_now.reads_until_failure = 0;
        happened["console not read"]++;
    } else if (dice == 5) {
        console_now.cells.erase(console_now.cells.begin(),
                                console_now.cells.begin() + view.cols);
        console_now.cells.resize(console_now.cells.size() + (size_t)view.cols, {'$', 0x1A});
    } else {
        for (int32_t n = below(5); n >= 0; n--)
            console_now.cells[rnd.below(console_now.cells.size())] = {
                (uint16_t)rnd.below(65536), (uint16_t)rnd.below(65536)};
    }
}

// Whether the viewer's window could do something: the receive thread stands where it has no
// lock.
static bool window_can_act()
{
    return run.watching && stepped_at(run.viewer) == AT_RECV;
}

// No viewer does it, but any may: advertise when much has been sent.
static void advertise_late()
{
    if (!window_can_act() || stepped_under_way(TO_HOST) + stepped_unread(TO_HOST) > 0)
        return;
    advertise();
    happened["advertisement, late"]++;
}

// A tile that shares its set of the cache with others.
static void draw_mate()
{
    int32_t x = below(desktop.width) & ~(TILE_SIZE - 1);
    int32_t y = below(desktop.height) & ~(TILE_SIZE - 1);
    if (x + TILE_SIZE <= desktop.width && y + TILE_SIZE <= desktop.height)
        desktop_draw({x, y, x + TILE_SIZE, y + TILE_SIZE}, MATE + below(PATTERNS - MATE));
}

// No viewer by the rules does it: drop the tile on which intra tiles are built.
static void forget_zeros() NO_THREAD_SAFETY_ANALYSIS
{
    if (!window_can_act() || !run.intra || run.honest)
        return;
    for (uint32_t i = 0; i < tile_cache.cache_capacity; i++)
        if (tile_cache.cache_keys[i] == host::intra_zero_hash())
            tile_cache.cache_keys[i] = 0;
}

static void random_step()
{
    steps++;
    stepped_clock += (uint32_t)below(run.pace_ms);
    if (one_in(20))
        random_console();
    int32_t dice = below(64);
    if (dice < 12) {
        if (run.busy) {
            desktop_draw_all(one_in(2) ? GRAIN : below(PATTERN_END));
            set_budget(host::TILE_BUDGET_MIN + below(8));
        } else if (run.honest && !one_in(3)) {
            draw_mate();
        } else {
            desktop_change();
        }
    } else if (dice < 28) {
        server_runs();
    } else if (dice < 38) {
        random_thread_runs();
    } else if (dice < 44) {
        deliver(TO_VIEWER);
    } else if (dice < 49) {
        deliver(TO_HOST);
    } else if (dice < 52) {
        others_run_out();
    } else if (dice < 55) {
        stepped_clock += (uint32_t)below(one_in(8) ? 400 : 20);
    } else if (dice < 57) {
        set_budget(one_in(8) ? host::TILE_BUDGET_MAX : host::TILE_BUDGET_MIN + below(20));
    } else if (dice == 57) {
        console_now.reads_until_failure = -1;
        for (int32_t n = below(4); n >= 0; n--)
            random_console();
    } else if (dice == 58) {
        run.acks_to_lose = below(5);
        if (one_in(2))
            forget_zeros();
    } else if (dice == 59) {
        pointer++;
        if (one_in(4))
            advertise_late();
    } else if (dice == 60 && run.filed && window_can_act()) {
        // Every five minutes, and where the disk fails.
        run.disk_calls = 0;
        run.disk_fails_at = one_in(4) ? 1 + (uint32_t)below(20) : 0;
        viewer::tile_cache_save_start();
    } else if (dice == 60 && one_in(2)) {
        desktop.lost = true;
    } else if (dice == 61 && host::capture_is_duplication() && one_in(6)) {
        random_mode();
    } else if (dice == 62 && one_in(20)) {
        desktop.away = !desktop.away;
    } else if (dice == 63 && window_can_act()) {
        // As the window's thread would. A press and a release, one after the other.
        MUST(viewer::viewer_send_key((uint16_t)('A' + run.keys_sent % 26), true));
        MUST(viewer::viewer_send_key((uint16_t)('A' + run.keys_sent % 26), false));
        run.keys_sent += 2;
        happened["key"]++;
    }
    if (nothing_under_way()) {
        check_certain_tiles(false);
        check_cache(false);
    }
}

// Leaves everybody in peace until nothing is sent any more.
static void come_to_rest()
{
    console_now.reads_until_failure = -1;
    if (one_in(2))
        console_now.in_front = false;
    run.calm = true;
    desktop.calm = true;
    desktop.away = false;
    run.acks_to_lose = 0;
    pointer++; // one more frame, whose acknowledgement stands for all that were lost
    for (int quiet = 0, rounds = 0; quiet < 3; rounds++) {
        MUST(rounds < 1000);
        stepped_clock += 300; // what is not acknowledged by now is passed over
        uint32_t before = host::frame_seq;
        bool news = (desktop.lost && host::capture_is_duplication()) || desktop.whole ||
                    desktop.changes > 0;
        // Through an iteration and a bit more: wherever it stands, it looks at the screen and
        // sends what it saw.
        for (int i = 0; i < 3; i++) {
            others_run_out();
            server_runs();
        }
        others_run_out();
        MUST(!stepped_broken());
        // The first walk may still wait for an advertisement, longer than this is quiet.
        bool rests = run.walked && host::frame_seq == before && !news && nothing_under_way();
        quiet = rests ? quiet + 1 : 0;
    }
    check_certain_tiles(true);
    check_cache(false);
    check_replica();
    check_picture();
    check_console();
    check_input();
    run.calm = false;
    desktop.calm = false;
}

// ---------------------------------------------------------------------------------------
// Sessions

// Noise, of which a first frame takes as many tiles as a record holds but for a few bytes:
// with the pointer and the frame's end it would be too long by some of those, or just not.
static void draw_to_the_brim()
{
    constexpr uint64_t HEAD = MESSAGE_HEADER_BYTES + TILE_HEAD_BYTES;
    constexpr uint64_t RAW = HEAD + TILE_BYTES;
    static uint8_t tile[TILE_BYTES], block[lz4_bound(TILE_BYTES)];
    desktop_draw_all(NOISE);
    uint64_t length = RECORD_MAX % RAW - HEAD - (uint64_t)below(40); // of tile 0, compressed
    int32_t noise = TILE_SIZE * TILE_SIZE;                           // pixels at its start
    do {
        noise--;
        memset(tile, 0, sizeof tile);
        for (int32_t i = 0; i < noise; i++)
            memcpy(tile + i * 4, &desktop.pixels[(size_t)(i / 64 * desktop.width + i % 64)], 4);
    } while ((uint64_t)lz4_compress_block(tile, TILE_BYTES, block, sizeof block) > length);
    for (int32_t i = noise; i < TILE_SIZE * TILE_SIZE; i++)
        desktop.pixels[(size_t)(i / 64 * desktop.width + i % 64)] = 0;
}

// A desktop to begin with; returns about how many steps it is worth.
static int32_t open_desktop()
{
    if (seed_playing % 199 == 7) { // now and then: they take long
        desktop_open(2048 + 64, 2048 + 64);
        draw_to_the_brim();
        happened["screen of more than a record"]++;
        return 10;
    }
    if (seed_playing % 401 == 11) {
        desktop_open(3000 + below(1001), 1800 + below(501));
        desktop_draw_all(below(PATTERN_END));
        happened["large screen"]++;
        return 20;
    }
    if (one_in(10))
        desktop_open(1 + below(700), 1 + below(500));
    else if (one_in(30))
        desktop_open(1, 1);
    else
        desktop_open(1 + below(one_in(2) ? 400 : 65), 1 + below(one_in(4) ? 65 : 260));
    if (desktop.width == 1 && desktop.height == 1)
        happened["screen of one pixel"]++;
    desktop_draw_all(one_in(3) ? BLACK : below(PATTERN_END)); // black is not sent at all
    return 200;
}

static void server_life(void *)
{
    MUST(host::host_server_run() == 0);
}

static void cut()
{
    for (int32_t i = below(8); i > 0; i--)
        random_thread_runs();
    size_t to_host = stepped_under_way(TO_HOST), to_viewer = stepped_under_way(TO_VIEWER);
    size_t host_gets = rnd.below(to_host + 1), viewer_gets = rnd.below(to_viewer + 1);
    happened["cut"]++;
    if (host_gets < to_host)
        happened["cut inside what the viewer sent"]++;
    if (viewer_gets < to_viewer)
        happened["cut inside what the host sent"]++;
    stepped_cut(host_gets, viewer_gets);
}

// Runs what is left of a session. When nobody runs but the server, its control thread stays
// behind and meets the next session.
static void session_ends(bool server_alone)
{
    auto over = [] {
        return stepped_at(run.server) == AT_END ||
               (stepped_at(run.server) == AT_ACCEPT && !stepped_can_run(run.server));
    };
    for (int rounds = 0; !over() || (!server_alone && stepped_threads().size() > 1); rounds++) {
        MUST(rounds < 1000);
        if (server_alone) {
            stepped_clock += 300;
            pointer++; // a frame to send, which fails
        } else {
            others_run_out();
        }
        server_runs();
    }
    if (stepped_threads().size() > 1 && run.control && stepped_at(run.control) != AT_END)
        happened["control thread left behind"]++;
}

// From the connection to its end.
static void play_session(int32_t length, net_socket *sock) NO_THREAD_SAFETY_ANALYSIS
{
    run.cached = !one_in(10);
    run.wants_cache = !one_in(8);
    run.wants_text = !one_in(3);
    run.busy = one_in(6);
    host::paces_bytes = !one_in(4);
    run.pace_ms = one_in(2) ? 1 : one_in(2) ? 4 : 40;
    run.advertises = run.cached && one_in(2);
    run.honest =
        run.cached && run.wants_cache &&
        (run.filed || (!run.advertises && tile_cache.cache_capacity == viewer::CACHE_CAPACITY &&
                       run.keys == std::vector<uint64_t>(viewer::CACHE_CAPACITY)));
    run.hashes.clear();
    run.miss_taken = run.acked_any = false;
    run.watching = run.refused = false;
    run.acks_to_lose = run.acks_under_way = 0;
    run.keys_sent = 0;
    input_record_clear();
    run.parsed = 0;
    run.control = nullptr;
    run.session = nullptr;
    run.lock_takers.clear();
    run.missed.clear();
    run.owed.clear();
    run.waited.clear();
    tile_cache.cache_enabled = run.cached;
    run.saver = nullptr;
    run.hashes_next = run.walked = run.intra = false;
    run.advertised = run.adverts_taken = run.first_adverts = 0;
    run.text = {};
    *sock = stepped_connect(one_in(4) ? 1000 + rnd.below(200000) : SIZE_MAX);
    run.viewer = stepped_start(viewer_life, sock);

    int32_t end = below(length);
    bool cuts = one_in(3), at_once = one_in(8); // perhaps in the handshake
    for (int32_t i = 0; !at_once && !run.watching && !run.refused; i++) {
        MUST(i < 1000);
        others_run_out();
        server_runs();
    }
    for (int32_t i = 0; i < end && !run.refused; i++) {
        random_step();
        MUST(!stepped_broken() || run.refused); // nobody has ended it
    }
    if (!cuts && !run.refused) {
        for (int32_t i = 0; !run.watching && !run.refused; i++) {
            MUST(i < 1000);
            others_run_out();
            server_runs();
        }
        if (run.watching)
            come_to_rest();
    }
    if (run.refused)
        happened["no screen to begin with"]++;
    else if (cuts || one_in(2))
        cut();
    else
        net_abort(*sock); // the viewer leaves
    session_ends(one_in(4));
    while (stepped_at(run.viewer) != AT_END) { // the control thread may be left behind
        if (run.saver && stepped_can_run(run.saver))
            run_thread(run.saver);
        run_thread(run.viewer);
    }
    if (!run.filed)
        check_cache(true);
    happened["session"]++;
}

static void play(uint64_t seed) NO_THREAD_SAFETY_ANALYSIS
{
    seed_playing = seed;
    rnd.state = seed * 0x9E3779B97F4A7C15ull | 1;
    rnd.next();
    run = {};
    stepped_net_reset();
    stepped_clock = one_in(4) ? 0u - (uint32_t)below(4000) : (uint32_t)rnd.next();
    host::frame_seq = one_in(8) ? 0u - (uint32_t)below(40) : (uint32_t)below(1000);
    host::host_stop_requested = 0;
    screen.hello_width = screen.hello_height = 0;
    pointer = (uint32_t)seed * 1000 + 1; // not where the last seed's was
    identity_script_reset(0);
    server_log_clear();
    console_script_reset();
    disk_memory_reset();
    disk_memory.hook = disk_works;
    run.filed = one_in(5);
    int32_t length = open_desktop();
    desktop.duplicates = !one_in(5);
    renew_cache();

    run.server = stepped_start(server_life, nullptr);
    static net_socket socks[4];
    for (int32_t i = 0, sessions = 1 + below(length > 20 ? 3 : 2); i < sessions; i++) {
        if (i > 0 && one_in(3))
            renew_cache();
        play_session(length, &socks[i]);
        desktop.away = desktop.away && one_in(2);
    }
    host::host_stop();
    stepped_end_listening();
    session_ends(false);
    MUST(stepped_at(run.server) == AT_END);
}

// ---------------------------------------------------------------------------------------

static uint64_t environment(const char *name, uint64_t otherwise)
{
    const char *given = getenv(name);
    return given ? strtoull(given, nullptr, 0) : otherwise;
}

#ifdef _WIN32
constexpr uint64_t SEEDS = 60; // a change of threads takes long under Wine
#else
constexpr uint64_t SEEDS = 2000;
#endif

// What the sessions of a thousand seeds do at least; they do about three times as much. It is
// asked whether the script still plays all that it should.
static const struct {
    const char *what;
    uint64_t times;
} EXPECTED[] = {
    {"acknowledgement lost", 1000},
    {"acknowledgements that came together", 100},
    {"advertisement", 300},
    {"advertisement, late", 150},
    {"black tile missed and kept", 10},
    {"cache file damaged", 10},
    {"cache file loaded", 25},
    {"capture restarted, other size", 100},
    {"capture restarted, same size", 300},
    {"certain tiles compared", 20000},
    {"console", 500},
    {"console compared at rest", 100},
    {"console gone", 250},
    {"console moved", 80},
    {"console not read", 200},
    {"console's rows", 150},
    {"control thread left behind", 150},
    {"cut", 400},
    {"cut inside what the host sent", 100},
    {"cut inside what the viewer sent", 10},
    {"eviction", 1500},
    {"first walk after the advertisement", 200},
    {"first walk before the advertisement", 30},
    {"first walk, no cache", 80},
    {"first walk, nothing advertised", 300},
    {"frame", 3000},
    {"key", 300},
    {"killed while saving", 15},
    {"large screen", 1},
    {"miss", 700},
    {"miss of the zeros, with intra tiles", 2},
    {"move", 1000},
    {"move found", 80},
    {"move left out beside others", 15},
    {"no screen to begin with", 10},
    {"picture compared at rest", 400},
    {"pointer", 1000},
    {"record full", 2},
    {"replica compared at rest", 80},
    {"replica of what was dropped", 10},
    {"save at the end", 70},
    {"save failed", 30},
    {"save told to stop", 6},
    {"save while the session goes on", 30},
    {"screen of more than a record", 2},
    {"screen of one pixel", 10},
    {"session", 1000},
    {"stall", 500},
    {"tile by reference", 2500},
    {"tile compressed", 10000},
    {"tile intra", 11},
    {"tile not worth a slot", 9},
    {"tile outside, cleared", 130},
    {"tile raw", 1500},
    {"tile raw, in doubt", 200},
    {"tile under a console", 100},
    {"walk ended early", 100},
};

TEST_CASE("whatever happens in whatever order, the viewer shows the host's screen")
{
    stepped_hook = {.stops = note_stops,
                    .started = note_started,
                    .locked = note_locked,
                    .unlocking = note_unlocking,
                    .sends = note_sends};
    viewer::viewer_channel_init();
    viewer::tile_cache_open(); // the one that stays

    // Part i of n plays every n-th seed from i on.
    const char *part = getenv("QV_PART");
    const char *of = part ? strchr(part, '/') : nullptr;
    uint64_t first = of ? strtoull(part, nullptr, 10) : 1;
    uint64_t stride = of ? strtoull(of + 1, nullptr, 10) : 1;
    uint64_t last = environment("QV_SEEDS", SEEDS);
    uint64_t seconds = environment("QV_SECONDS", 0);
    if (getenv("QV_SEED")) {
        first = last = environment("QV_SEED", 0);
    } else if (seconds > 0) {
        first += (uint64_t)time(nullptr) << 20;
        last = UINT64_MAX;
    }
    auto start = std::chrono::steady_clock::now();
    auto elapsed = [&] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
    uint64_t seeds = 0;
    for (uint64_t seed = first; seed <= last; seed += stride) {
        if (seconds > 0 && elapsed() >= (double)seconds)
            break;
        play(seed);
        seeds++;
    }
    printf("%llu seeds from %llu, %llu steps, %.0f s\n", (unsigned long long)seeds,
           (unsigned long long)first, (unsigned long long)steps, elapsed());
    for (const auto &[what, times] : happened)
        printf("%12llu %s\n", (unsigned long long)times, what.c_str());
    CHECK(seeds > 0);
    if (seeds < 1000)
        return; // too few to tell
    for (const auto &expected : EXPECTED) {
        CAPTURE(expected.what);
        CHECK(happened[expected.what] >= expected.times * seeds / 1000);
    }
}
