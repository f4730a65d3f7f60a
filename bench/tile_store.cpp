// The tile cache between sessions, in real time and on a real disk, in a folder of its own
// that goes away afterwards.
//
// The file: a full cache is opened, by which it is advertised to a peer and its tiles are
// read, and saved as the window saves it at the end. Beside it the same bytes are read into
// fresh memory, or copied to another file and flushed to the disk. The system has the file in
// memory in either case: what is compared is not the disk's own speed.
//
// The second connect: the whole of host and viewer over loopback, for one screen that the
// viewer has not seen and once more when it has; until the picture is complete.
#include "bench/tile_store.h"

#include "bench/screens.h"
#include "bench/session.h"
#include "host/screen.h"
#include "protocol/clock.h"
#include "protocol/thread.h"
#include "tests/fakes/capture_script.h"
#include "tests/fakes/server_log_record.h"
#include "viewer/cache_file.h"
#include "viewer/frame_decode.h"
#include "viewer/tile_cache.h"
#include "viewer/viewer_channel.h"

#include <algorithm>
#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace viewer;

static const char GROUP[] = "tile cache between sessions";

static bool wanted(const std::string &name, const std::vector<std::string> &words)
{
    bool any = words.empty();
    for (const std::string &word : words)
        any = any || name.find(word) != std::string::npos ||
              std::string(GROUP).find(word) != std::string::npos;
    return any;
}

// The user's folder, as far as the cache knows.
struct own_folder {
    std::string path;

    own_folder()
    {
        char made[] = "/var/tmp/qv_bench_XXXXXX"; // on a disk, where /tmp may be none
        if (mkdtemp(made))
            path = made;
        // A folder below, so that the name with the backslash lies in it.
        setenv("QV_TEST_CACHE_FOLDER", (path + "/data").c_str(), 1);
    }
    ~own_folder()
    {
        unsetenv("QV_TEST_CACHE_FOLDER");
        if (!path.empty())
            std::filesystem::remove_all(path);
    }
    own_folder(const own_folder &) = delete;
};

static std::string cache_path()
{
    char path[CACHE_PATH_SIZE] = "";
    return cache_file_path(path) ? path : "";
}

// ---------------------------------------------------------------------------------------
// The file

// The peer to whom the cache is advertised: a thread that notes when it has had so many bytes.
struct advertisement_peer {
    int ends[2];
    size_t bytes;
    std::atomic<int64_t> arrived;

    static void live(void *argument)
    {
        advertisement_peer *self = (advertisement_peer *)argument;
        static uint8_t buffer[1 << 16];
        while (self->bytes > 0) {
            ssize_t n = recv(self->ends[0], buffer, std::min(sizeof buffer, self->bytes), 0);
            if (n <= 0)
                return;
            self->bytes -= (size_t)n;
        }
        self->arrived = bench_now();
    }
};

// Bytes of the advertisement of so many hashes, as sealed records: header and hashes apart.
static size_t advertisement_bytes(uint32_t hashes)
{
    size_t bytes = 0;
    for (uint32_t left = hashes; left > 0; left -= std::min(left, CACHE_ADVERT_MAX_HASHES))
        bytes += 2 * (RECORD_HEADER_BYTES + RECORD_TAG_BYTES) + MESSAGE_HEADER_BYTES +
                 std::min(left, CACHE_ADVERT_MAX_HASHES) * 8;
    return bytes;
}

struct opening {
    double advertised, loaded; // nanoseconds
};

static bool open_cache(uint32_t tiles, opening *taken)
{
    advertisement_peer peer = {{-1, -1}, advertisement_bytes(tiles), {0}};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, peer.ends) != 0)
        return false;
    channel_open(&viewer_channel, peer.ends[1]);
    viewer_channel.sender.encrypted = 1;
    thread *other = thread_start(advertisement_peer::live, &peer);
    int64_t start = bench_now();
    tile_cache_open();
    taken->loaded = (double)(bench_now() - start);
    bool joined = other && thread_join(other, 20000);
    taken->advertised = (double)(peer.arrived - start);
    channel_reset(&viewer_channel);
    close(peer.ends[0]);
    close(peer.ends[1]);
    return joined && peer.arrived != 0;
}

// The tile of a slot, and the hash that puts it there.
static uint64_t slot_hash(uint32_t slot)
{
    return slot / 2 + CACHE_CAPACITY / 2 * (1ull + slot % 2);
}

static void slot_tile(uint32_t slot, uint8_t tile[TILE_BYTES])
{
    bench_random random = {slot + 1};
    for (size_t i = 0; i < TILE_BYTES; i += 8) {
        uint64_t word = random.next();
        memcpy(tile + i, &word, 8);
    }
}

static void insert(uint32_t slot)
{
    static uint8_t tile[TILE_BYTES];
    slot_tile(slot, tile);
    lock_enter(&frame_lock);
    tile_cache_insert(slot_hash(slot), tile, TILE_ROW_BYTES);
    lock_leave(&frame_lock);
}

static bool holds_all(uint32_t tiles)
{
    static uint8_t tile[TILE_BYTES];
    bool right = true;
    lock_enter(&frame_lock);
    for (uint32_t slot = 0; slot < tiles && right; slot++) {
        slot_tile(slot, tile);
        const uint8_t *found = tile_cache_find(slot_hash(slot));
        right = found && memcmp(found, tile, TILE_BYTES) == 0;
    }
    lock_leave(&frame_lock);
    return right;
}

static bool save_cache(double *taken)
{
    int64_t start = bench_now();
    lock_enter(&frame_lock);
    tile_cache_save();
    bool saved = !tile_cache.cache_dirty;
    lock_leave(&frame_lock);
    *taken = (double)(bench_now() - start);
    return saved;
}

static void close_cache()
{
    lock_enter(&frame_lock);
    tile_cache_close();
    lock_leave(&frame_lock);
}

// All of a file into memory that was never used.
static bool plain_read(const std::string &path, double *taken)
{
    int64_t start = bench_now();
    uint8_t *bytes = (uint8_t *)calloc(CACHE_FILE_BYTES, 1);
    int file = open(path.c_str(), O_RDONLY);
    size_t done = 0;
    ssize_t n = 1;
    while (bytes && n > 0 && done < CACHE_FILE_BYTES) {
        n = read(file, bytes + done, CACHE_FILE_BYTES - done);
        done += n > 0 ? (size_t)n : 0;
    }
    *taken = (double)(bench_now() - start);
    if (file >= 0)
        close(file);
    free(bytes);
    return done == CACHE_FILE_BYTES;
}

// A megabyte at a time, and flushed: what a save must at least do.
static bool plain_copy(const std::string &from, const std::string &to, double *taken)
{
    static uint8_t piece[1 << 20];
    int64_t start = bench_now();
    int in = open(from.c_str(), O_RDONLY);
    int out = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    size_t done = 0;
    ssize_t n = 1;
    while (in >= 0 && out >= 0 && n > 0) {
        n = read(in, piece, sizeof piece);
        if (n > 0 && write(out, piece, (size_t)n) != n)
            break;
        done += n > 0 ? (size_t)n : 0;
    }
    bool flushed = fsync(out) == 0;
    if (in >= 0)
        close(in);
    if (out >= 0)
        close(out);
    *taken = (double)(bench_now() - start);
    return flushed && done == CACHE_FILE_BYTES;
}

static bench_line line_of(const char *name, const char *other, const std::string &note)
{
    bench_line line;
    line.group = GROUP;
    line.name = name;
    line.unit = "file";
    line.sense = BENCH_TIME;
    line.other.name = other;
    line.note = note;
    return line;
}

static void measure_file(std::vector<bench_line> *lines)
{
    own_folder folder;
    lock_init(&frame_lock);
    viewer_channel_init();
    uint32_t tiles = bench.quick ? 200 : CACHE_CAPACITY;
    int32_t rounds = bench.quick ? 1 : bench.brief ? 3 : 7;
    std::string note = std::to_string(tiles) + " tiles";
    bench_line advert = line_of("time to the advertisement", "read the file", note);
    bench_line load = line_of("load", "read the file", note);
    bench_line save = line_of("save", "copy the file", note);

    std::string path = cache_path();
    double time = 0;
    opening opened = {};
    bool right = !path.empty() && open_cache(0, &opened);
    for (uint32_t slot = 0; slot < tiles; slot++)
        insert(slot);
    right = right && save_cache(&time) && holds_all(tiles);
    close_cache();
    for (int32_t round = 0; round < rounds && right; round++) {
        double read = 0, copied = 0, saved = 0;
        right = plain_read(path, &read) && open_cache(tiles, &opened);
        insert(0); // the same again, which is something new to save
        right = right && plain_copy(path, folder.path + "/copy", &copied) &&
                save_cache(&saved) && holds_all(tiles);
        close_cache();
        advert.own_times.push_back(opened.advertised);
        load.own_times.push_back(opened.loaded);
        save.own_times.push_back(saved);
        advert.other_times.push_back(read);
        load.other_times.push_back(read);
        save.other_times.push_back(copied);
    }
    for (bench_line *line : {&advert, &load, &save}) {
        line->right = [=] { return right; };
        lines->push_back(*line);
    }
}

// ---------------------------------------------------------------------------------------
// The second connect

static constexpr uint32_t ADVERT_WAIT_MS = 1000; // longer than it takes

static struct {
    picture screen;
    bool captured;
    net_socket ends[2]; // host's, viewer's
} line_to_host;

static host::capture_result take_picture()
{
    clock_sleep_ms(1);
    const picture &p = line_to_host.screen;
    if (line_to_host.captured)
        return host::CAPTURE_NOTHING;
    line_to_host.captured = true;
    host::capture_copy_rect((const uint8_t *)p.pixels.data(), (int64_t)p.width * 4, 0, 0,
                            p.width, p.height);
    return host::CAPTURE_FRAME;
}

static void host_thread(void *)
{
    bench_serve(line_to_host.ends[0], ADVERT_WAIT_MS);
}

struct connect_cost {
    double ns;
    uint64_t bytes;
};

static bool connect_once(connect_cost *cost)
{
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0)
        return false;
    line_to_host.ends[0] = pair[0];
    line_to_host.ends[1] = pair[1];
    line_to_host.captured = false;
    const picture &p = line_to_host.screen;
    host::screen.hello_width = host::screen.hello_height = 0;
    if (!host::screen_resize(p.width, p.height) || !frame_open(p.width, p.height))
        return false;
    capture_script_step = take_picture;

    int64_t start = bench_now();
    thread *server = thread_start(host_thread, nullptr);
    bool right = server && bench_join(pair[1]);
    if (right) {
        tile_cache_open();
        // A viewer that has nothing to advertise says something else first.
        right = viewer_send_key(0, false);
    }
    thread *receive = right ? thread_start(viewer_recv_thread, nullptr) : nullptr;
    while (receive && !bench_shows(p) && bench_now() - start < 60000000000)
        clock_sleep_ms(1);
    cost->ns = (double)(bench_now() - start);
    cost->bytes = statistics.stat_bytes;
    right = receive && bench_shows(p);

    net_abort(pair[1]);
    if (receive)
        thread_join(receive, THREAD_WAIT_FOREVER);
    if (server)
        thread_join(server, THREAD_WAIT_FOREVER); // closes its end
    net_close(pair[1]);
    channel_reset(&viewer_channel);
    capture_script_step = nullptr;
    double ignored = 0;
    right = save_cache(&ignored) && right;
    close_cache();
    frame_close();
    server_log_clear();
    return right;
}

static size_t distinct_tiles()
{
    const picture &p = line_to_host.screen;
    std::set<std::string> tiles;
    for (int32_t y = 0; y < p.height; y += TILE_SIZE)
        for (int32_t x = 0; x < p.width; x += TILE_SIZE) {
            std::string tile;
            for (int32_t row = y; row < std::min(y + TILE_SIZE, p.height); row++)
                tile.append((const char *)&p.pixels[(size_t)row * (size_t)p.width + (size_t)x],
                            (size_t)std::min(TILE_SIZE, p.width - x) * 4);
            tiles.insert(tile);
        }
    return tiles.size();
}

static void measure_connects(std::vector<bench_line> *lines)
{
    own_folder folder;
    lock_init(&host::host_lock);
    lock_init(&frame_lock);
    viewer_channel_init();
    line_to_host.screen = bench.quick ? picture_make(650, 390, 0) : picture_make(1920, 1080, 0);
    draw_desktop(&line_to_host.screen, 1);

    bench_line line = line_of("second connect", "first connect", "");
    line.unit = "connect";
    bool right = true;
    connect_cost first = {}, second = {};
    for (int32_t round = bench.quick ? 1 : bench.brief ? 2 : 5; round > 0 && right; round--) {
        std::filesystem::remove(cache_path());
        right = connect_once(&first) && connect_once(&second);
        line.own_times.push_back(second.ns);
        line.other_times.push_back(first.ns);
    }
    char note[128];
    snprintf(note, sizeof note, "%.1f KB against %.0f KB: %.2f %% (%zu distinct tiles)",
             (double)second.bytes / 1024, (double)first.bytes / 1024,
             first.bytes ? 100.0 * (double)second.bytes / (double)first.bytes : 0,
             distinct_tiles());
    line.note = note;
    line.right = [=] { return right && second.bytes * 100 <= first.bytes * 3; };
    lines->push_back(line);
    line_to_host.screen = {};
}

void tile_store_measure(std::vector<bench_line> *lines, const std::vector<std::string> &words)
{
    if (wanted("load save time to the advertisement", words))
        measure_file(lines);
    if (wanted("second connect", words))
        measure_connects(lines);
}
