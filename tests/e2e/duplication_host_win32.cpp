// The host's program with a double in place of the duplication: it shows made-up scenes, for
// which it takes orders from its standard input, a line each:
//
//   play SEED COUNT      COUNT frames of every kind, with random changes
//   size WIDTH HEIGHT    access is lost, and the desktop has this size from now on
//   lose                 access is lost, the size stays
//   refuse               access is lost for good: no duplication can be had any more
//   dump FILE            writes what it shows: pixels of 4 bytes, top row first
//
// Each answers with a line: its own, and after it, for dump, what is open and what the double
// had to complain about. Orders are carried out on the server's thread when it asks for a
// frame.
#include "tests/e2e/duplication_double.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <deque>
#include <mutex>
#include <random>
#include <string>
#include <vector>

int host_main(int argc, char **argv); // the host's own

static std::mutex orders_lock;
static std::deque<std::string> orders;

static std::mt19937_64 scene;
static int32_t frames_of_play, frames_left;
static std::string playing; // the order that is being carried out

static int32_t below(int32_t n)
{
    return (int32_t)(scene() % (uint64_t)n);
}

static uint32_t *pixel(int32_t x, int32_t y)
{
    return &desktop.pixels[(size_t)y * desktop.width + (size_t)x];
}

static RECT random_box(int32_t width, int32_t height)
{
    width = std::min(width, (int32_t)desktop.width);
    height = std::min(height, (int32_t)desktop.height);
    RECT box;
    box.left = below((int32_t)desktop.width - width + 1);
    box.top = below((int32_t)desktop.height - height + 1);
    box.right = box.left + width;
    box.bottom = box.top + height;
    return box;
}

// New pixels: one colour, a pattern that comes back often, or noise.
static void fill(const RECT &box)
{
    int32_t kind = below(4);
    uint32_t colour = (uint32_t)scene();
    for (int32_t y = box.top; y < box.bottom; y++) {
        for (int32_t x = box.left; x < box.right; x++) {
            if (kind == 0)
                *pixel(x, y) = (uint32_t)scene();
            else if (kind == 1)
                *pixel(x, y) = (uint32_t)(x % 64 * 4) << 8 | (uint32_t)(y % 64 * 4);
            else
                *pixel(x, y) = colour;
        }
    }
}

static void add_dirty(double_frame *frame, int32_t count)
{
    for (int32_t i = 0; i < count; i++) {
        RECT box = random_box(1 + below(150), 1 + below(150));
        fill(box);
        frame->dirty.push_back(box);
    }
}

// Moves what is shown. They follow one upon the other, and may overlap.
static void add_moves(double_frame *frame, int32_t count, int32_t side)
{
    for (int32_t i = 0; i < count; i++) {
        RECT to = random_box(1 + below(side), 1 + below(side));
        RECT from = random_box(to.right - to.left, to.bottom - to.top);
        if (below(3) == 0) { // as scrolling does, by a little
            from = to;
            LONG up = std::min<LONG>(from.top, 1 + below(20));
            from.top -= up;
        }
        const int32_t width = to.right - to.left, height = to.bottom - to.top;
        std::vector<uint32_t> carried;
        for (int32_t y = 0; y < height; y++)
            carried.insert(carried.end(), pixel(from.left, from.top + y),
                           pixel(from.left, from.top + y) + width);
        for (int32_t y = 0; y < height; y++)
            memcpy(pixel(to.left, to.top + y), &carried[(size_t)(y * width)],
                   (size_t)width * 4);
        frame->moves.push_back({{from.left, from.top}, to});
    }
}

// One frame of any kind; false when there is none.
static bool play(double_frame *frame)
{
    // A whole copy repairs what went wrong before it: none in the last half of a play.
    int32_t kind = below(14);
    bool whole = (kind >= 2 && kind <= 4) || kind == 7 || kind == 8;
    if (whole && frames_left * 2 <= frames_of_play)
        kind = 5 + kind % 2;
    switch (kind) {
    case 0:
        return false; // a wait
    case 1:
        frame->presented = false;
        return true;
    case 2: // more than its rectangles tell
        frame->accumulated = 2;
        add_moves(frame, 3, 200);
        add_dirty(frame, 3);
        frame->moves.clear();
        break;
    case 3:
        frame->metadata_bytes = 0;
        add_dirty(frame, 2);
        break;
    case 4:
        frame->moves_result = E_FAIL;
        add_moves(frame, 3, 200);
        break;
    case 5: // moves that nobody can follow: their areas have new pixels
        add_dirty(frame, 2);
        for (const RECT &box : frame->dirty)
            frame->moves.push_back({{-1, box.top}, box});
        frame->dirty.clear();
        break;
    case 6:
        add_moves(frame, 280, 24);
        break;
    case 7:
        fill(random_box((int32_t)desktop.width, (int32_t)desktop.height));
        frame->dirty = {{0, 0, (LONG)desktop.width, (LONG)desktop.height}};
        break;
    case 8: // the pixels come with the restart
        if (below(3) == 0) {
            add_dirty(frame, 2);
            frame->dirty.clear();
            frame->result = DXGI_ERROR_ACCESS_LOST;
        } else {
            desktop.map_result = below(4) == 0 ? E_OUTOFMEMORY : S_OK;
            add_dirty(frame, 3);
        }
        break;
    case 9:
    case 10:
        add_dirty(frame, 1 + below(5));
        break;
    case 11:
        add_moves(frame, 1 + below(4), 300);
        break;
    default:
        add_moves(frame, 1 + below(4), 300);
        add_dirty(frame, 1 + below(3));
        break;
    }
    double_show(desktop.width, desktop.height);
    return true;
}

static void paint(UINT width, UINT height)
{
    desktop.width = width; // double_show looks at the texture's own
    desktop.height = height;
    desktop.pixels.assign((size_t)width * height, 0xFF205080);
    for (int32_t i = 0; i < 40; i++)
        fill(random_box(1 + below(200), 1 + below(200)));
    double_show(width, height);
}

static void answer(const std::string &line)
{
    printf("%s\n", line.c_str());
    fflush(stdout);
}

static void dump(const std::string &order, const char *path)
{
    FILE *file = fopen(path, "wb");
    if (file) {
        fwrite(desktop.pixels.data(), 4, desktop.pixels.size(), file);
        fclose(file);
    }
    std::string found;
    for (const std::string &fault : desktop.faults)
        found += "; " + fault;
    answer(order + ": " + std::to_string(desktop.width) + "x" + std::to_string(desktop.height) +
           ", references " + std::to_string(double_references(desktop.texture)) +
           ", duplications " + std::to_string(desktop.duplications) + ", stagings " +
           std::to_string(desktop.stagings) + ", faults" + found);
}

// Carries out the next order; true when it makes a frame.
static bool obey(const std::string &order, double_frame *frame)
{
    unsigned long long seed = 0;
    int32_t count = 0;
    UINT width = 0, height = 0;
    char path[256] = {};
    if (sscanf(order.c_str(), "play %llu %d", &seed, &count) == 2) {
        scene.seed(seed);
        frames_of_play = frames_left = count;
        playing = order;
        return false;
    }
    if (sscanf(order.c_str(), "dump %255s", path) == 1) {
        dump(order, path);
        return false;
    }
    frame->result = DXGI_ERROR_ACCESS_LOST;
    if (sscanf(order.c_str(), "size %u %u", &width, &height) == 2) {
        desktop.mode_width = width;
        desktop.mode_height = height;
        paint(width, height);
    } else if (order == "refuse") {
        desktop.open_result = DXGI_ERROR_UNSUPPORTED;
    } else if (order != "lose") {
        answer("what is " + order + "?");
        return false;
    }
    answer(order);
    return true;
}

static bool next_frame(double_frame *frame)
{
    desktop.map_result = S_OK; // a failure was for one frame
    static int32_t begun;
    if (begun != desktop.opened) { // a duplication begins with the desktop as it is
        begun = desktop.opened;
        return true;
    }
    if (frames_left > 0) {
        bool made = play(frame);
        if (--frames_left == 0)
            answer(playing);
        return made;
    }
    std::string order;
    {
        std::lock_guard<std::mutex> held(orders_lock);
        if (orders.empty())
            return false;
        order = orders.front();
        orders.pop_front();
    }
    return obey(order, frame);
}

static DWORD WINAPI read_orders(void *)
{
    char line[300];
    while (fgets(line, sizeof line, stdin)) {
        line[strcspn(line, "\r\n")] = 0;
        std::lock_guard<std::mutex> held(orders_lock);
        orders.push_back(line);
    }
    return 0;
}

int main(int argc, char **argv)
{
    double_open(640, 480);
    paint(640, 480);
    desktop.next_frame = next_frame;
    CreateThread(nullptr, 0, read_orders, nullptr, 0, nullptr);
    return host_main(argc, argv);
}
