// Scenes for the search for moves. Programs that scroll, pan and are dragged repaint all of
// their window, as most do; the capture copies the whole screen and says nothing. Sizes are
// those of a 1920x1080 screen, cut to smaller ones.
#include "bench/moving.h"

#include "bench/road.h"
#include "bench/screens.h"
#include "host/frame_pipeline.h"

#include <algorithm>

static constexpr uint32_t WHITE = 0xFFFFFFFF, INK = 0xFF202020, FACE = 0xFFF0F0F0,
                          EDGE = 0xFFA0A0A0;

struct moving_scene {
    const char *name;
    double bytes_target; // share of the bytes without the search; 0: nothing moves here
    int32_t frames;
    std::function<void(int32_t n)> draw;
};

// What the scenes cut their pictures from, drawn once.
static struct {
    picture code, page, table, map, backdrop, noise, pattern, photos, window, dialog;
} sheets;

// Where a scroll by these steps, over and over, stands after n of them.
static int32_t position(const std::vector<int32_t> &steps, int32_t n)
{
    int32_t at = 0;
    for (int32_t i = 0; i < n; i++)
        at += steps[(size_t)i % steps.size()];
    return at;
}

static void draw_bar(area a, const std::string &text)
{
    draw_fill(&road_screen, a, FACE);
    draw_frame(&road_screen, a, EDGE);
    draw_text(&road_screen, a, a.left + 12, a.bottom - 9, FONT_SANS, 13, INK, TEXT_GREY, text);
}

static picture make_map(int32_t width, int32_t height)
{
    picture map = picture_make(width, height, 0);
    draw_photo(&map, picture_area(map), 31, 0, 0, 0, 1);
    for (uint32_t &pixel : map.pixels) // areas of one colour
        pixel = 0xFF000000 | ((pixel & 0xE0E0E0) + 0x101010);
    bench_random random = {77};
    for (int32_t i = 0; i < 40; i++) { // roads
        int32_t y = (int32_t)random.below((uint32_t)height);
        int32_t x = (int32_t)random.below((uint32_t)width);
        draw_fill(&map, {0, y, width, y + 4}, WHITE);
        draw_fill(&map, {x, 0, x + 4, height}, 0xFFFFE090);
    }
    for (int32_t i = 0; i < 400; i++)
        draw_text(&map, picture_area(map), (int32_t)random.below((uint32_t)width),
                  (int32_t)random.below((uint32_t)height), FONT_SANS, 12, INK, TEXT_GREY,
                  made_up_text(random.next(), 10));
    return map;
}

static void make_sheets(int32_t width, int32_t height)
{
    sheets.code = picture_make(width, height + 2000, WHITE);
    draw_editor(&sheets.code, picture_area(sheets.code), 3);
    sheets.page = picture_make(width, height + 2000, WHITE);
    draw_document(&sheets.page, picture_area(sheets.page), 8);
    for (int32_t y = 200; y < height + 2000; y += 610) {
        int32_t x = 120 + y % 7 * 60;
        draw_photo(&sheets.page, {x, y, x + 480, y + 300}, (uint64_t)y, 0, 0, 2, 5);
    }
    sheets.table = picture_make(width + 2000, height, WHITE);
    draw_table(&sheets.table, picture_area(sheets.table), 4);
    sheets.map = make_map(width + 900, height + 600);
    sheets.backdrop = picture_make(width, height, 0);
    draw_desktop(&sheets.backdrop, 1);
    sheets.noise = picture_make(width, height, 0);
    draw_noise(&sheets.noise, picture_area(sheets.noise), 9);
    sheets.pattern = picture_make(width, height, 0xFF4A6A8A);
    for (int32_t y = 0; y < height; y += 8)
        for (int32_t x = y / 8 % 2 * 4; x < width; x += 8)
            draw_fill(&sheets.pattern, {x, y, x + 3, y + 3}, 0xFF5A7A9A);
    sheets.window = picture_make(900, 620, WHITE);
    draw_document(&sheets.window, picture_area(sheets.window), 21);
    draw_photo(&sheets.window, {60, 330, 840, 600}, 71, 0, 0, 3, 9);
    draw_fill(&sheets.window, {0, 0, 900, 32}, 0xFF0067C0);
    draw_frame(&sheets.window, picture_area(sheets.window), EDGE);
    sheets.dialog = picture_make(420, 240, FACE);
    draw_dialog(&sheets.dialog, {0, 30, 420, 240}, 5);
    draw_fill(&sheets.dialog, {0, 0, 420, 30}, 0xFF0067C0);
    draw_text(&sheets.dialog, {0, 0, 420, 30}, 12, 20, FONT_SANS, 14, WHITE, TEXT_GREY,
              "Settings");
    draw_frame(&sheets.dialog, picture_area(sheets.dialog), EDGE);
    sheets.photos = picture_make(width, height * 2, 0);
    draw_photo(&sheets.photos, picture_area(sheets.photos), 12, 0, 0, 2, 3);
}

// A shadow of some 24 pixels around a window: the ground darkens towards it.
static void draw_shadow(area a)
{
    constexpr int32_t REACH = 24;
    for (int32_t y = std::max(a.top - REACH, 0);
         y < std::min(a.bottom + REACH, road_screen.height); y++)
        for (int32_t x = std::max(a.left - REACH, 0);
             x < std::min(a.right + REACH, road_screen.width); x++) {
            int32_t away = std::max(std::max(a.left - x, x - a.right + 1),
                                    std::max(a.top - y, y - a.bottom + 1));
            if (away <= 0)
                continue;
            uint32_t *at =
                &road_screen.pixels[(size_t)y * (size_t)road_screen.width + (size_t)x];
            uint32_t left = (uint32_t)(160 + away * 96 / REACH), out = 0xFF000000;
            for (int32_t shift = 0; shift < 24; shift += 8)
                out |= std::min((*at >> shift & 255) * left / 256, 255u) << shift;
            *at = out;
        }
}

static void draw_window(const picture &window, int32_t x, int32_t y)
{
    draw_copy(&road_screen, x, y, window, picture_area(window));
}

static void fade(const picture &from, const picture &to, int32_t part, int32_t whole)
{
    uint32_t share = (uint32_t)(256 * part / whole); // of `to`, in 256ths
    for (size_t i = 0; i < road_screen.pixels.size(); i++) {
        uint32_t a = from.pixels[i], b = to.pixels[i];
        // Red and blue at once, each with a byte free above it.
        uint32_t red_blue = (a & 0xFF00FF) * (256 - share) + (b & 0xFF00FF) * share;
        uint32_t green = (a & 0xFF00) * (256 - share) + (b & 0xFF00) * share;
        road_screen.pixels[i] = 0xFF000000 | (red_blue >> 8 & 0xFF00FF) | (green >> 8 & 0xFF00);
    }
}

static std::vector<moving_scene> moving_scenes(int32_t width, int32_t height)
{
    picture *screen = &road_screen;
    area all = {0, 0, width, height};
    auto code = [=](int32_t n) {
        int32_t top = 360 + position({54, 54, 54, 18, 162, -54, -54}, n);
        draw_copy(screen, 0, 0, sheets.code, {0, top, width, top + height - 28});
        draw_bar({0, height - 28, width, height}, "Line " + std::to_string(top / 18));
    };
    auto page = [=](int32_t n) {
        int32_t top = 300 + position({37, 53, 101, 7, -61, -23, 121}, n);
        draw_copy(screen, 0, 72, sheets.page, {0, top, width, top + height - 72});
        draw_bar({0, 0, width, 72}, "The news of the day");
    };
    auto sheet = [=](int32_t n) {
        int32_t left = 200 + position({90, 90, 45, -90, 33, 180}, n);
        draw_copy(screen, 80, 24, sheets.table, {left, 24, left + width - 80, height});
        draw_copy(screen, 80, 0, sheets.table, {left, 0, left + width - 80, 24});
        draw_copy(screen, 0, 0, sheets.table, {0, 0, 80, height});
    };
    auto pane = [=](int32_t n) {
        int32_t top = 100 + position({63, 21, 42, 105, -63, 63}, n);
        draw_copy(screen, 0, 0, sheets.code, {0, 0, width / 3, height});
        draw_copy(screen, width / 3, 0, sheets.page,
                  {100, top, 100 + width - width / 3, top + height});
    };
    auto panes = [=](int32_t n) {
        int32_t left_top = 200 + position({54, 18, 54, -36}, n);
        int32_t right_top = 200 + position({21, 63, -42, 84}, n);
        draw_copy(screen, 0, 0, sheets.code, {0, left_top, width / 2, left_top + height});
        draw_copy(screen, width / 2, 0, sheets.page,
                  {0, right_top, width - width / 2, right_top + height});
    };
    auto map = [=](int32_t n) {
        int32_t x = 300 + position({17, 23, 9, 31, -13}, n);
        int32_t y = 200 + position({11, 6, 19, -7, 14}, n);
        draw_copy(screen, 0, 0, sheets.map, {x, y, x + width, y + height});
        draw_bar({20, 20, 360, 60}, "Search");
        draw_bar({width - 60, height - 140, width - 20, height - 100}, "+");
        draw_bar({width - 60, height - 90, width - 20, height - 50}, "-");
    };
    auto dialog = [=](int32_t n) {
        *screen = sheets.backdrop;
        draw_window(sheets.dialog, width / 4 + position({13, 22, 7, -5}, n),
                    height / 4 + position({8, 3, 15, 4}, n));
    };
    auto shadowed = [=](int32_t n) {
        *screen = sheets.pattern;
        int32_t x = width / 8 + position({19, 26, 11, -7}, n);
        int32_t y = height / 10 + position({9, 4, 13, 6}, n);
        draw_shadow({x, y, x + sheets.window.width, y + sheets.window.height});
        draw_window(sheets.window, x, y);
    };
    auto over_noise = [=](int32_t n) {
        *screen = sheets.noise;
        draw_window(sheets.window, width / 8 + position({3, 5, 2, 4}, n),
                    height / 10 + position({2, 3, 1, 3}, n));
    };
    auto video = [=](int32_t n) {
        if (n == 0)
            *screen = sheets.backdrop;
        draw_video(screen, {width / 3, height / 3, width / 3 * 2, height / 3 * 2}, n);
    };
    auto whole_video = [=](int32_t n) { draw_video(screen, all, n); };
    auto fading = [=](int32_t n) { fade(sheets.backdrop, sheets.photos, n % 24, 24); };
    auto typing = [=](int32_t n) {
        if (n == 0)
            *screen = sheets.backdrop;
        draw_text(screen, all, width / 3 + n * 9, height / 2, FONT_MONO, 14, INK, TEXT_SUBPIXEL,
                  "x");
    };
    // Where nothing moves, long enough to see how much is looked for in the long run.
    return {
        {"lines under a status bar", 1 / 6.0, 30, code},
        {"page with a sticky header", 1 / 6.0, 30, page},
        {"sheet sideways", 1 / 6.0, 30, sheet},
        {"one of two panes", 1 / 6.0, 30, pane},
        {"two panes by different amounts", 1 / 6.0, 30, panes},
        {"map with fixed controls", 1 / 6.0, 30, map},
        {"small flat dialog", 1 / 2.5, 30, dialog},
        {"shadowed window, periodic ground", 1 / 2.5, 30, shadowed},
        {"window over noise", 1 / 10.0, 30, over_noise},
        {"video in a window", 0, 60, video},
        {"video, whole screen", 0, 24, whole_video},
        {"fade", 0, 60, fading},
        {"typing", 0, 60, typing},
    };
}

static bool wanted(const std::string &name, const std::vector<std::string> &words)
{
    for (const std::string &word : words)
        if (("moves found " + name).find(word) != std::string::npos)
            return true;
    return words.empty();
}

static double sum_of(const std::vector<frame_times> &frames, double frame_times::*value)
{
    double sum = 0;
    for (const frame_times &f : frames)
        sum += f.*value;
    return sum;
}

static void measure(std::vector<bench_line> *lines, const moving_scene &now, int32_t frames,
                    int32_t passes)
{
    scene played = {now.name, 1, frames, now.draw, false, 0, 0};
    std::vector<frame_times> with, without;
    bool right = true;
    for (int32_t pass = 0; pass < passes; pass++)
        for (bool search : {pass % 2 == 0, pass % 2 != 0}) {
            host::finds_moves = search;
            right = road_play(played, ROAD_PLAIN, search ? &with : &without) && right;
        }
    host::finds_moves = true;

    bench_line line;
    line.group = "moves found";
    line.name = now.name;
    line.unit = "frame";
    line.sense = BENCH_TIME;
    line.target = now.bytes_target > 0 ? 1.2 : 1.05;
    line.own.name = "with the search";
    line.other.name = "without it";
    double moved = 0, moves = 0, search = 0;
    for (const frame_times &f : with) {
        line.own_times.push_back(f.host);
        moved += f.moves > 0;
        moves += f.moves;
        search += f.stage[STAGE_MOVES];
    }
    for (const frame_times &f : without)
        line.other_times.push_back(f.host);
    double bytes = sum_of(with, &frame_times::bytes);
    double bytes_without = sum_of(without, &frame_times::bytes);
    double count = (double)with.size();
    char note[160];
    snprintf(note, sizeof note,
             "%.0f of %.0f B a frame: 1/%.1f%s; a move in %.0f %% (%.1f each); "
             "time in all %.2f",
             bytes / count, bytes_without / count, bytes_without / bytes,
             now.bytes_target == 0                       ? ""
             : bytes <= now.bytes_target * bytes_without ? ", met"
                                                         : ", MISSED",
             100 * moved / count, moves / count,
             sum_of(with, &frame_times::host) / sum_of(without, &frame_times::host));
    line.note = note;
    line.parts = {{"searching", search / count}};
    line.right = [=] { return right; };
    lines->push_back(line);
}

void moving_measure(std::vector<bench_line> *lines, const std::vector<std::string> &words)
{
    int32_t width = bench.quick ? 650 : 1920, height = bench.quick ? 390 : 1080;
    bool made = false;
    for (const moving_scene &now : moving_scenes(width, height)) {
        if (!wanted(now.name, words))
            continue;
        if (!made) {
            road_screen = picture_make(width, height, 0);
            make_sheets(width, height);
            made = true;
        }
        int32_t frames = bench.quick ? 3 : bench.brief ? 20 : now.frames;
        measure(lines, now, frames, bench.quick ? 1 : 2);
    }
    sheets = {};
    road_screen = {};
}
