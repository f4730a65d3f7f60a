// The windows: title bar, borders and content, in the measures of a desktop at 96 dpi.
#include "bench/screens.h"

#include "bench/bench.h"

#include <algorithm>

static constexpr uint32_t WHITE = 0xFFFFFFFF, INK = 0xFF202020, FACE = 0xFFF0F0F0,
                          EDGE = 0xFFA0A0A0, ACCENT = 0xFF0067C0;
static constexpr int32_t TITLE_BAR = 32, TASK_BAR = 40;

static const char *const WORDS[] = {
    "the",     "meeting", "of",      "tuesday",  "report",  "and",    "a",        "quarter",
    "figures", "we",      "should",  "deliver",  "before",  "noon",   "printer",  "on",
    "second",  "floor",   "is",      "empty",    "again",   "please", "order",    "paper",
    "draft",   "for",     "review",  "contains", "three",   "new",    "chapters", "about",
    "winter",  "storage", "to",      "be",       "checked", "by",     "everyone", "who",
    "reads",   "it",      "with",    "care",     "numbers", "in",     "table",    "five",
    "were",    "rounded", "twice",   "so",       "sums",    "differ", "slightly", "from",
    "ledger",  "nobody",  "noticed", "until",    "audit",   "came",   "last",     "week",
};

std::string made_up_text(uint64_t seed, int32_t length)
{
    bench_random random = {seed * 2 + 1};
    for (int32_t i = 0; i < 8; i++)
        random.next();
    std::string text;
    while ((int32_t)text.size() < length) {
        std::string word = WORDS[random.below(sizeof WORDS / sizeof *WORDS)];
        if (text.empty() || text.ends_with(". "))
            word[0] = (char)(word[0] - 'a' + 'A');
        text += word + (random.below(11) == 0 ? ". " : random.below(9) == 0 ? ", " : " ");
    }
    return text;
}

void draw_wallpaper(picture *p, area a)
{
    draw_gradient(p, a, 0xFF1B3A5C, 0xFF6FA3C8);
}

void draw_dialog(picture *p, area a, uint64_t seed)
{
    bench_random random = {seed * 2 + 1};
    random.next();
    draw_fill(p, a, FACE);
    for (int32_t y = a.top + 16; y + 26 < a.bottom; y += 36)
        for (int32_t x = a.left + 16; x + 190 < a.right; x += 220) {
            area box = {x, y, x + 190, y + 26};
            uint32_t kind = random.below(4);
            draw_fill(p, box, kind == 0 ? 0xFFE1E1E1 : kind == 1 ? ACCENT : WHITE);
            draw_frame(p, box, EDGE);
            if (kind == 3) { // a box to tick
                draw_fill(p, {x, y, x + 190, y + 26}, FACE);
                draw_frame(p, {x, y + 6, x + 14, y + 20}, 0xFF606060);
            }
            if (random.below(3) != 0)
                draw_text(p, box, x + 22, y + 18, FONT_SANS, 12, kind == 1 ? WHITE : INK,
                          TEXT_GREY, made_up_text(random.next(), 16));
        }
}

void draw_document(picture *p, area a, uint64_t seed)
{
    draw_fill(p, a, WHITE);
    area page = {a.left + 40, a.top, a.right - 40, a.bottom};
    int32_t line = 0;
    for (int32_t y = a.top + 30; y < a.bottom + 20; y += 21, line++) {
        if (line % 12 == 11)
            continue; // between paragraphs
        bool heading = line % 36 == 0;
        draw_text(p, page, page.left, y, heading ? FONT_BOLD : FONT_SERIF, heading ? 20 : 16,
                  INK, TEXT_GREY,
                  made_up_text(seed * 1000 + (uint64_t)line, (page.right - page.left) / 7));
    }
}

void draw_editor(picture *p, area a, uint64_t seed)
{
    static const uint32_t colours[] = {INK, 0xFF0000C0, 0xFF008000, 0xFFA31515, 0xFF795E26};
    draw_fill(p, a, WHITE);
    draw_fill(p, {a.left, a.top, a.left + 46, a.bottom}, 0xFFF7F7F7);
    int32_t line = 0;
    for (int32_t y = a.top + 14; y < a.bottom + 14; y += EDITOR_LINE, line++) {
        bench_random random = {(seed * 1000 + (uint64_t)line) * 2 + 1};
        random.next();
        random.next();
        draw_text(p, a, a.left + 8, y, FONT_MONO, 14, 0xFF2B91AF, TEXT_SUBPIXEL,
                  std::to_string(seed % 7 * 100 + (uint64_t)line + 1));
        int32_t x = a.left + 56 + (int32_t)random.below(5) * 34;
        for (uint32_t word = random.below(10); word > 0; word--)
            x = draw_text(p, a, x, y, FONT_MONO, 14, colours[random.below(5)], TEXT_SUBPIXEL,
                          made_up_text(random.next(), 8));
    }
}

void draw_table(picture *p, area a, uint64_t seed)
{
    bench_random random = {seed * 2 + 1};
    random.next();
    draw_fill(p, a, WHITE);
    for (int32_t y = a.top; y < a.bottom; y += 20) {
        draw_fill(p, {a.left, y, a.right, y + 1}, 0xFFD4D4D4);
        for (int32_t x = a.left; x < a.right; x += 90) {
            draw_fill(p, {x, y, x + 1, y + 20}, 0xFFD4D4D4);
            if (random.below(4) == 0)
                continue;
            draw_text(p, {x, y, x + 88, y + 20}, x + 20, y + 15, FONT_SANS, 13, INK, TEXT_GREY,
                      std::to_string(random.below(1000000)));
        }
    }
}

void draw_desktop(picture *p, uint64_t number)
{
    draw_wallpaper(p, picture_area(*p));
    area bar = {0, p->height - TASK_BAR, p->width, p->height};
    draw_fill(p, bar, 0xFF202A36);
    for (int32_t i = 0; i < 6; i++)
        draw_text(p, bar, 20 + i * 160, p->height - 14, FONT_SANS, 13, WHITE, TEXT_GREY,
                  made_up_text((uint64_t)i, 14));
    area window = {p->width / 40, p->height / 40, p->width - p->width / 40,
                   p->height - TASK_BAR - p->height / 60};
    area title = {window.left, window.top, window.right, window.top + TITLE_BAR};
    area content = {window.left + 1, title.bottom, window.right - 1, window.bottom - 1};
    draw_fill(p, title, ACCENT);
    draw_text(p, title, title.left + 12, title.top + 21, FONT_SANS, 14, WHITE, TEXT_GREY,
              made_up_text(number, 30));
    switch (number % 4) {
    case 0:
        draw_editor(p, content, number);
        break;
    case 1:
        draw_document(p, content, number);
        break;
    case 2:
        draw_table(p, content, number);
        break;
    default:
        draw_dialog(p, content, number);
        break;
    }
    draw_frame(p, window, EDGE);
}

void draw_video(picture *p, area a, int32_t frame)
{
    draw_photo(p, a, 4242, frame * 3, frame, 2, (uint64_t)frame * 2 + 1);
}
