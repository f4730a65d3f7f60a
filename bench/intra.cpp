// Scenes for intra tiles: pictures that have nothing to do with what they replace, and some
// that have.
//
// Bytes do not depend on the machine, so one pass is enough.
#include "bench/intra.h"

#include "bench/road.h"
#include "bench/screens.h"
#include "host/frame_pipeline.h"

struct intra_scene {
    const char *name;
    double target; // share of the bytes without; 0: none
    std::function<picture(int32_t n)> picture_number;
};

// The host's viewer has proved itself when the second picture is there.
static constexpr int32_t FIRST = 2;

static picture desktop(int32_t width, int32_t height, int32_t number)
{
    picture p = picture_make(width, height, 0);
    draw_desktop(&p, (uint64_t)number);
    return p;
}

static std::vector<intra_scene> intra_scenes(int32_t width, int32_t height)
{
    auto desktops = [=](int32_t of_kind, int32_t kinds) {
        return [=](int32_t n) { return desktop(width, height, of_kind + kinds * n); };
    };
    auto photos = [=](int32_t grain) {
        return [=](int32_t n) {
            picture p = desktop(width, height, n);
            if (n >= FIRST - 1)
                draw_photo(&p, picture_area(p), 100 + (uint64_t)n, 0, 0, grain, 17);
            return p;
        };
    };
    auto video = [=](int32_t n) {
        picture p = desktop(width, height, 0);
        if (n >= FIRST - 1)
            draw_video(&p, {width / 3, height / 3, width / 3 * 2, height / 3 * 2}, n);
        return p;
    };
    auto scrolling = [=](int32_t n) {
        picture page = picture_make(width, height + 2000, 0);
        draw_document(&page, picture_area(page), 8);
        picture p = desktop(width, height, 3);
        if (n >= FIRST - 1)
            draw_copy(&p, 64, 64, page, {0, n * 63, width - 128, n * 63 + height - 128});
        return p;
    };
    return {
        {"first visits, windows of all kinds", 0.65, desktops(0, 1)},
        {"first visits, program text", 0, desktops(0, 4)},
        {"first visits, documents", 0, desktops(1, 4)},
        {"first visits, tables", 0, desktops(2, 4)},
        {"first visits, dialogs", 0, desktops(3, 4)},
        {"photo after photo, smooth", 0.8, photos(0)},
        {"photo after photo, grain of 1", 0, photos(1)},
        {"photo after photo, grain of 3", 0, photos(3)},
        {"video in a window", 1.01, video},
        {"scrolling a document", 1.01, scrolling},
    };
}

static double bytes_of(const std::vector<frame_times> &frames)
{
    double sum = 0;
    for (const frame_times &f : frames)
        sum += f.bytes;
    return sum / (double)frames.size();
}

void intra_measure(std::vector<bench_line> *lines, const std::vector<std::string> &words)
{
    int32_t width = bench.quick ? 650 : 1920, height = bench.quick ? 390 : 1080;
    int32_t frames = bench.quick || bench.brief ? 4 : 8;
    for (const intra_scene &now : intra_scenes(width, height)) {
        bool wanted = words.empty();
        for (const std::string &word : words)
            wanted = wanted ||
                     ("intra tiles " + std::string(now.name)).find(word) != std::string::npos;
        if (!wanted)
            continue;
        std::vector<picture> pictures;
        for (int32_t n = 0; n < frames; n++)
            pictures.push_back(now.picture_number(n));
        scene played = {
            now.name, FIRST, frames, [&](int32_t n) { road_screen = pictures[(size_t)n]; },
            false,    0,     0};
        road_screen = pictures[0];
        road_slow_line = {2500000, 40};
        std::vector<frame_times> with, without;
        bool right = road_play(played, ROAD_PLAIN, &with);
        host::sends_intra = false;
        right = road_play(played, ROAD_PLAIN, &without) && right;
        host::sends_intra = true;
        road_slow_line = {};

        bench_line line;
        line.group = "intra tiles";
        line.name = now.name;
        line.unit = "picture";
        line.sense = BENCH_TIME;
        line.bytes = true;
        line.target = now.target;
        line.own.name = "with intra tiles";
        line.other.name = "without";
        line.own_times = {bytes_of(with)};
        line.other_times = {bytes_of(without)};
        line.right = [=] { return right; };
        lines->push_back(line);
    }
    road_screen = {};
}
