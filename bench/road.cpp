// The whole road on generated scenes: capture, frame pipeline, channel, receive loop, decoder.
//
// One thread plays both sides. The viewer's receive loop runs; whenever it has nothing to
// read it comes here (road_refill), where its frame is accounted for, its acknowledgement is
// handed to the host, the scene moves on and the host makes the next frame. So nobody waits
// for anybody, and what is measured is work.
//
// A frame is everything that one change of the screen causes: one record as a rule, several
// where the change does not fit one or the viewer missed tiles. Half of the passes measure
// the frame only; the others look at the clock around each stage as well (stages.h), which
// makes them slower and is why their totals are not used.
#include "bench/road.h"

#include "bench/memory.h"
#include "bench/screens.h"
#include "bench/session.h"
#include "bench/stages.h"
#include "host/cache_mirror.h"
#include "host/control_thread.h"
#include "host/frame_pipeline.h"
#include "host/host_channel.h"
#include "host/host_server.h"
#include "host/screen.h"
#include "host/tile_ops.h"
#include "tests/fakes/capture_script.h"
#include "tests/fakes/clock_offset.h"
#include "tests/fakes/server_log_record.h"
#include "viewer/frame_decode.h"
#include "viewer/tile_cache.h"
#include "viewer/viewer_channel.h"

#include <lz4.h>
#include <memory>
#include <string.h>

// The server's flag; nothing stops the host here.
std::atomic<uint32_t> host::host_stop_requested;

// ---------------------------------------------------------------------------------------
// Scenes

picture road_screen;
road_line road_slow_line;

static struct {
    std::vector<area> changed;
    std::vector<copy_rect> moves;
    std::vector<picture> desktops, photos;
    picture page;
} stage_set;

static const picture &desktop_number(size_t n)
{
    auto &all = stage_set.desktops;
    while (all.size() <= n) {
        all.push_back(picture_make(road_screen.width, road_screen.height, 0));
        draw_desktop(&all.back(), all.size() - 1);
    }
    return all[n];
}

static const picture &photo_number(size_t n)
{
    auto &all = stage_set.photos;
    while (all.size() <= n) {
        all.push_back(picture_make(road_screen.width, road_screen.height, 0));
        draw_photo(&all.back(), picture_area(all.back()), 100 + all.size(), 0, 0, 3, 17);
    }
    return all[n];
}

static constexpr int32_t SCROLL_STEP = 63; // three lines of the document

static void draw_scrolled(int32_t n)
{
    picture *screen = &road_screen;
    picture &page = stage_set.page;
    if (page.width == 0) {
        page = picture_make(screen->width, screen->height + 16 * SCROLL_STEP, 0);
        draw_document(&page, picture_area(page), 8);
    }
    int32_t top = n * SCROLL_STEP;
    draw_copy(screen, 0, 0, page, {0, top, screen->width, top + screen->height});
    if (n == 0)
        return;
    int32_t kept = screen->height - SCROLL_STEP;
    stage_set.moves.push_back({0, SCROLL_STEP, 0, 0, screen->width, kept});
    stage_set.changed.push_back({0, 0, screen->width, screen->height});
}

static std::vector<scene> scenes_of(int32_t width, int32_t height)
{
    picture *screen = &road_screen;
    auto typing = [=](int32_t n) {
        if (n == 0)
            *screen = desktop_number(0);
        int32_t x = width / 3 + n * 9, y = height / 2;
        draw_text(screen, picture_area(*screen), x, y, FONT_MONO, 14, 0xFF202020, TEXT_SUBPIXEL,
                  std::string(1, (char)('a' + n % 26)));
    };
    auto drag = [=](int32_t n) {
        *screen = desktop_number(1);
        int32_t x = width / 8 + n * 11, y = height / 8 + n * 7;
        area window = {0, 0, width / 2, height / 2};
        draw_copy(screen, x, y, desktop_number(3), window);
    };
    auto video = [=](int32_t n) {
        if (n == 0)
            *screen = desktop_number(1);
        int32_t w = width / 3, h = height / 3;
        draw_video(screen, {w, h, 2 * w, 2 * h}, n);
    };
    int32_t many = bench.quick ? 4 : width > 2000 ? 10 : 20;
    int32_t some = bench.quick ? 3 : width > 2000 ? 6 : 12;
    // Pictures that are new each time. More than a few: the first ones find buffers that still
    // have to grow.
    int32_t few = bench.quick ? 3 : width > 2000 ? 8 : 10;
    return {
        {"idle", 1, many,
         [=](int32_t n) {
             if (n == 0)
                 *screen = desktop_number(0);
         },
         false, 1.05, 0},
        {"typing", 1, many, typing, false, 0, 0},
        {"scrolling", 1, some, draw_scrolled, false, 0, 0},
        {"scrolling, moves reported", 1, some, draw_scrolled, true, 0, 0},
        {"window drag", 1, some, drag, false, 0, 0},
        {"window switch, first visits", 1, few,
         [=](int32_t n) { *screen = desktop_number((size_t)n); }, false, 1.2, 1.35},
        {"window switch, revisits", 2, some,
         [=](int32_t n) { *screen = desktop_number((size_t)(n % 2)); }, false, 0, 0},
        {"video in a window", 1, some, video, false, 0, 0},
        {"photos", 1, few, [=](int32_t n) { *screen = photo_number((size_t)n); }, false, 1.0,
         0},
    };
}

// ---------------------------------------------------------------------------------------
// One frame's account

struct play {
    const scene *now;
    host::host_session *session;
    int32_t frame; // of the scene, under way
    road_manner manner;
    bool captured; // this frame's picture was taken
    bool right;
    int64_t viewer_from;        // when the viewer went on; 0: not yet
    double viewer_then[STAGES]; // the stages' times then
    uint64_t moves_before;      // stage_moves_found when the frame began
    size_t record_bytes;        // of the last one
    frame_times times;
    std::vector<uint8_t> before; // prev_frame when the frame began
    std::vector<frame_times> *account;
};

static void play_frame_begins(play *p)
{
    stage_set.changed.clear();
    stage_set.moves.clear();
    p->now->draw(p->frame);
    p->captured = false;
    p->times = {};
    p->moves_before = stage_moves_found;
    memset(stages.ns, 0, sizeof stages.ns);
    // The same conditions for every frame, however long this machine took for the last.
    p->session->estimator = host::latency_start();
    p->session->ema_rtt16 = 0;
    p->session->tile_budget = host::TILE_BUDGET_MAX;
    if (p->manner != ROAD_WHOLE)
        return;
    lock_enter(&host::host_lock);
    memcpy(p->before.data(), host::screen.prev_frame, p->before.size());
    lock_leave(&host::host_lock);
}

static host::capture_result take_picture(play *p)
{
    if (p->captured)
        return host::CAPTURE_NOTHING;
    p->captured = true;
    const picture &from = road_screen;
    const uint8_t *pixels = (const uint8_t *)from.pixels.data();
    int64_t start = bench_processor_time();
    if (p->now->duplication && p->frame > 0) {
        for (const copy_rect &move : stage_set.moves)
            host::screen.move_list[host::screen.move_count++] = move;
        for (const area &a : stage_set.changed)
            host::capture_copy_rect(pixels, (int64_t)from.width * 4, a.left, a.top, a.right,
                                    a.bottom);
    } else {
        host::capture_copy_rect(pixels, (int64_t)from.width * 4, 0, 0, from.width, from.height);
    }
    stages.ns[STAGE_CAPTURE] += (double)(bench_processor_time() - start);
    return host::CAPTURE_FRAME;
}

// What the stages that are not counted took since `then`.
static double aside(const double then[STAGES])
{
    double sum = 0;
    for (int32_t i = STAGE_SEAL; i <= STAGE_CAPTURE; i++)
        sum += stages.ns[i] - then[i];
    return sum;
}

static bool anything_dirty()
{
    for (int64_t i = 0; i < (int64_t)host::screen.tiles_x * host::screen.tiles_y; i++)
        if (host::screen.dirty_map[i])
            return true;
    return false;
}

static void host_step(play *p)
{
    double then[STAGES];
    memcpy(then, stages.ns, sizeof then);
    uint64_t allocations = stage_allocations;
    size_t unsent = road_to_viewer.bytes.size();
    memory_of = MEMORY_HOST;
    int64_t start = bench_processor_time();
    p->right = host::frame_pipeline_step(p->session) && p->right;
    p->times.host += (double)(bench_processor_time() - start) - aside(then);
    // A still picture allocates nothing, and sends nothing.
    if (p->frame > 0 && strcmp(p->now->name, "idle") == 0)
        p->right = p->right && stage_allocations == allocations && road_to_viewer.bytes.empty();
    memory_of = MEMORY_VIEWER;
    p->times.bytes += (double)road_to_viewer.bytes.size();
    p->record_bytes = road_to_viewer.bytes.size() - unsent;
}

// Hands the viewer's answers to the host, as the control thread does, when the line has
// carried what they answer.
static void host_reads(play *p)
{
    if (road_slow_line.rate != 0)
        clock_put_forward(road_slow_line.trip_ms +
                          (uint32_t)(p->record_bytes * 1000 / road_slow_line.rate));
    uint8_t head[MESSAGE_HEADER_BYTES], payload[64];
    while (road_to_host.taken < road_to_host.bytes.size()) {
        p->right = channel_recv(&p->session->receiver, head, sizeof head) && p->right;
        message_header header = get_header(head);
        if (header.length > sizeof payload ||
            !channel_recv(&p->session->receiver, payload, header.length)) {
            p->right = false;
            return;
        }
        host::control_message(p->session, header.type, payload, header.length);
    }
}

// The differences of the tiles that changed in the frame, one after the other.
static const std::vector<uint8_t> &differences(const play &p) REQUIRES(host::host_lock)
{
    static std::vector<uint8_t> deltas; // keeps its memory
    deltas.clear();
    const uint8_t *after = host::screen.prev_frame;
    size_t pitch = (size_t)host::screen.padded_width * PIXEL_BYTES;
    for (int32_t ty = 0; ty < host::screen.tiles_y; ty++)
        for (int32_t tx = 0; tx < host::screen.tiles_x; tx++) {
            uint64_t at = host::tile_offset(host::screen.padded_width, tx, ty);
            if (host::tile_equal(after + at, &p.before[at], pitch))
                continue;
            size_t end = deltas.size();
            deltas.resize(end + TILE_BYTES);
            for (size_t row = 0; row < TILE_SIZE; row++, at += pitch)
                for (size_t i = 0; i < (size_t)TILE_ROW_BYTES; i++)
                    deltas[end++] = after[at + i] ^ p.before[at + i];
        }
    return deltas;
}

// The other sides: what liblz4 needs for those differences, and for decompressing them and
// copying a frame; where nothing changed, comparing alone.
static void play_others(play *p)
{
    lock_enter(&host::host_lock);
    const uint8_t *after = host::screen.prev_frame;
    size_t pitch = (size_t)host::screen.padded_width * PIXEL_BYTES;
    const std::vector<uint8_t> &deltas = differences(*p);
    size_t tiles = deltas.size() / TILE_BYTES;
    p->times.tiles = (double)tiles;
    if (tiles == 0) {
        int64_t start = bench_processor_time();
        for (int32_t ty = 0; ty < host::screen.tiles_y; ty++)
            for (int32_t tx = 0; tx < host::screen.tiles_x; tx++) {
                uint64_t at = host::tile_offset(host::screen.padded_width, tx, ty);
                bench_keep(host::tile_equal(host::screen.frame_buffer + at, after + at, pitch));
            }
        p->times.host_other = (double)(bench_processor_time() - start);
        lock_leave(&host::host_lock);
        return;
    }
    constexpr int ROOM = LZ4_COMPRESSBOUND(TILE_BYTES);
    static std::vector<char> blocks; // these keep their memory, too
    static std::vector<uint8_t> copy;
    blocks.resize(tiles * ROOM);
    copy = p->before;
    std::vector<int> lengths(tiles);
    std::vector<char> tile(TILE_BYTES);
    int64_t start = bench_processor_time();
    for (size_t i = 0; i < tiles; i++)
        lengths[i] = LZ4_compress_default((const char *)&deltas[i * TILE_BYTES],
                                          &blocks[i * ROOM], TILE_BYTES, ROOM);
    p->times.host_other = (double)(bench_processor_time() - start);
    start = bench_processor_time();
    for (size_t i = 0; i < tiles; i++)
        bench_keep((uint64_t)LZ4_decompress_safe(&blocks[i * ROOM], tile.data(), lengths[i],
                                                 TILE_BYTES));
    memcpy(copy.data(), after, copy.size());
    bench_keep(copy[0]);
    p->times.viewer_other = (double)(bench_processor_time() - start);
    lock_leave(&host::host_lock);
}

static void play_frame_ends(play *p)
{
    memcpy(p->times.stage, stages.ns, sizeof stages.ns);
    p->times.moves = (double)(stage_moves_found - p->moves_before);
    bool fine = stages.fine;
    stages.fine = false;
    p->right = p->right && bench_shows(road_screen);
    if (p->frame >= p->now->first) {
        if (p->manner == ROAD_WHOLE)
            play_others(p);
        p->account->push_back(p->times);
    }
    stages.fine = fine;
}

// The viewer wants bytes: it is done with what it had.
static void refill(play *p)
{
    if (p->viewer_from != 0)
        p->times.viewer +=
            (double)(bench_processor_time() - p->viewer_from) - aside(p->viewer_then);
    host_reads(p);
    while (road_to_viewer.bytes.empty() && p->right) {
        if (p->captured && !anything_dirty()) {
            play_frame_ends(p);
            if (++p->frame == p->now->frames)
                return;
            play_frame_begins(p);
        }
        host_step(p);
    }
    memcpy(p->viewer_then, stages.ns, sizeof stages.ns);
    p->viewer_from = bench_processor_time();
}

// ---------------------------------------------------------------------------------------
// One session

static void open_channels(play *p)
{
    static const uint8_t key[CHANNEL_KEY_BYTES] = {1, 2, 3};
    viewer::viewer_channel_init();
    channel_open(&host::host_channel, ROAD_HOST_SOCKET);
    channel_open(&viewer::viewer_channel, ROAD_VIEWER_SOCKET);
    for (secure_channel *channel : {&host::host_channel, &viewer::viewer_channel}) {
        channel->sender.encrypted = p->manner == ROAD_WHOLE;
        channel->receiver.encrypted = p->manner == ROAD_WHOLE;
        memcpy(channel->sender.send_key, key, sizeof key);
        memcpy(channel->receiver.recv_key, key, sizeof key);
    }
    p->session = host::session_create(ROAD_HOST_SOCKET, host::frame_seq);
    if (p->session)
        channel_take_receiver(&host::host_channel, &p->session->receiver);
    if (p->session && road_slow_line.rate != 0)
        p->session->key_trip_us = p->session->hello_trip_us = road_slow_line.trip_ms * 1000ull;
}

bool road_play(const scene &now, road_manner manner, std::vector<frame_times> *account)
{
    const picture &screen = road_screen;
    lock_init(&host::host_lock);
    host::screen.hello_width = host::screen.hello_height = 0;
    memory_of = MEMORY_HOST;
    bool opened = host::screen_resize(screen.width, screen.height);
    memory_of = MEMORY_VIEWER;
    if (!opened || !viewer::frame_open(screen.width, screen.height))
        return false;
    viewer::tile_cache_open();
    bench_touch_cache();
    road_to_viewer = {};
    road_to_host = {};
    play p = {};
    p.now = &now;
    p.manner = manner;
    p.right = true;
    p.account = account;
    if (manner == ROAD_WHOLE)
        p.before.resize((size_t)host::screen.tiles_x * (size_t)host::screen.tiles_y *
                        TILE_BYTES);
    open_channels(&p);
    if (!p.session)
        return false;
    memory_of = MEMORY_HOST;
    host::frame_pipeline_start(CAP_TILE_CACHE);
    capture_script_step = [&] { return take_picture(&p); };
    road_refill = [&] { refill(&p); };

    stages.on = true;
    play_frame_begins(&p);
    memory_of = MEMORY_VIEWER;
    viewer::viewer_recv_thread(nullptr);
    memory_of = MEMORY_NOBODY;
    stages.on = false;

    bool right = p.right && p.frame == now.frames;
    capture_script_step = nullptr;
    host::session_retire();
    channel_reset(&host::host_channel);
    host::session_release(p.session);
    channel_reset(&viewer::viewer_channel);
    lock_enter(&viewer::frame_lock);
    viewer::tile_cache_close();
    lock_leave(&viewer::frame_lock);
    viewer::frame_close();
    server_log_clear();
    return right;
}

// ---------------------------------------------------------------------------------------
// Lines

struct scene_account {
    std::vector<frame_times> plain, fine; // without and with the stages' times
    bool right = true;
};

template <class function>
static double median_of(const std::vector<frame_times> &frames, function value)
{
    std::vector<double> values;
    for (const frame_times &f : frames)
        values.push_back(value(f));
    return bench_spread_of(values).median;
}

using stage_name = std::pair<const char *, stage>;

// The stages that make up `total`, what is left of it, and those beside it.
static void add_parts(bench_line *line, const scene_account &account, double total,
                      const std::vector<stage_name> &inside, const char *rest,
                      const std::vector<stage_name> &beside)
{
    auto of_stage = [&](stage which) {
        return median_of(account.fine, [=](const frame_times &f) { return f.stage[which]; });
    };
    line->parts.clear();
    for (const auto &[name, which] : inside) {
        line->parts.emplace_back(name, of_stage(which));
        total -= line->parts.back().second;
    }
    // Medians do not add up to the nanosecond.
    line->parts.emplace_back(rest, total > 0 ? total : 0);
    for (const auto &[name, which] : beside)
        line->parts.emplace_back(name, of_stage(which));
}

static void add_lines(std::vector<bench_line> *lines, const scene &now, const std::string &size,
                      const scene_account &account)
{
    bench_line line;
    line.group = "whole road";
    line.unit = "frame";
    line.sense = BENCH_TIME;
    bool right = account.right;
    line.right = [=] { return right; };

    line.name = size + " " + now.name + ": host";
    bool changes = median_of(account.plain, [](const frame_times &f) { return f.tiles; }) > 0;
    line.target = changes ? 0 : now.host_target;
    line.other.name = changes ? "liblz4, same differences" : "comparing alone";
    for (const frame_times &f : account.plain) {
        line.own_times.push_back(f.host);
        line.other_times.push_back(f.host_other);
    }
    char note[96];
    snprintf(note, sizeof note, "%.0f tiles, %.0f bytes",
             median_of(account.plain, [](const frame_times &f) { return f.tiles; }),
             median_of(account.plain, [](const frame_times &f) { return f.bytes; }));
    line.note = note;
    // What finds moves looks at whole pictures in some frames and at none in others, so
    // it is no stage of a median frame.
    std::vector<double> walks;
    for (const frame_times &f : account.plain)
        walks.push_back(f.host - f.stage[STAGE_MOVES]);
    add_parts(&line, account, bench_spread_of(walks).median,
              {{"compare", STAGE_COMPARE},
               {"hash", STAGE_HASH},
               {"look-up", STAGE_LOOK_UP},
               {"XOR", STAGE_XOR},
               {"compress", STAGE_COMPRESS},
               {"copies", STAGE_COPY}},
              "rest", {{"beside it: capture", STAGE_CAPTURE}, {"seal", STAGE_SEAL}});
    double searching = 0;
    for (const frame_times &f : account.plain)
        searching += f.stage[STAGE_MOVES] / (double)account.plain.size();
    if (searching > 0)
        line.parts.emplace_back("search for moves, on average", searching);
    lines->push_back(line);
    if (!changes)
        return;
    line.parts.clear();
    if (now.host_target != 0) {
        line.name = size + " " + now.name + ": tile walk";
        line.target = now.host_target;
        line.note = "host without the search for moves";
        line.own_times = walks;
        lines->push_back(line);
    }

    line.name = size + " " + now.name + ": viewer";
    line.target = now.viewer_target;
    line.other.name = "liblz4 and a frame's memcpy";
    line.note = "";
    line.own_times.clear();
    line.other_times.clear();
    for (const frame_times &f : account.plain) {
        line.own_times.push_back(f.viewer);
        line.other_times.push_back(f.viewer_other);
    }
    add_parts(&line, account, bench_spread_of(line.own_times).median,
              {{"decompress", STAGE_DECOMPRESS}, {"cache", STAGE_CACHE}}, "XOR, place and rest",
              {{"beside it: open", STAGE_OPEN}});
    lines->push_back(line);
}

// What each side held at most, of blocks of a page and more.
static void add_memory_lines(std::vector<bench_line> *lines, const std::string &size,
                             int32_t width, int32_t height)
{
    for (memory_side side : {MEMORY_HOST, MEMORY_VIEWER})
        lines->push_back(memory_line(
            side, size + ": " + (side == MEMORY_HOST ? "host" : "viewer") + ", blocks", width,
            height, (double)memory_peak[side]));
}

static bool wanted(const std::string &name, const std::vector<std::string> &words)
{
    for (const std::string &word : words)
        if (("whole road " + name).find(word) != std::string::npos)
            return true;
    return words.empty();
}

void road_measure(std::vector<bench_line> *lines, const std::vector<std::string> &words)
{
    struct screen_size {
        int32_t width, height, passes;
    };
    std::vector<screen_size> sizes = {{1920, 1080, 4}, {3840, 2160, 2}};
    if (bench.quick)
        sizes = {{650, 390, 2}};
    else if (bench.brief)
        sizes = {{1920, 1080, 2}};
    for (const screen_size &size : sizes) {
        stage_set = {};
        road_screen = picture_make(size.width, size.height, 0);
        std::string text = std::to_string(size.width) + "x" + std::to_string(size.height);
        std::vector<scene> scenes = scenes_of(size.width, size.height);
        std::vector<scene_account> accounts(scenes.size());
        for (int32_t pass = 0; pass < size.passes; pass++)
            for (size_t i = 0; i < scenes.size(); i++) {
                if (!wanted(text + " " + scenes[i].name, words))
                    continue;
                stages.fine = pass % 2 == 1;
                scene_account *account = &accounts[i];
                account->right = road_play(scenes[i], ROAD_WHOLE,
                                           stages.fine ? &account->fine : &account->plain) &&
                                 account->right;
                stages.fine = false;
            }
        for (size_t i = 0; i < scenes.size(); i++)
            if (wanted(text + " " + scenes[i].name, words))
                add_lines(lines, scenes[i], text, accounts[i]);
        if (words.empty() || wanted(text + " memory", words))
            add_memory_lines(lines, text, size.width, size.height);
        stage_set = {};
    }
}
