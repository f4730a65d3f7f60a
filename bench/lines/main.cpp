// qv_lines: how a session feels over slow lines. `make bench LINES=1` runs it (tools/bench).
//
//   qv_lines [--quick] [--json FILE] [--seed N] [--one] [WORD...]
//
// Each line is played with frames paced by bytes and without, side by side, each with an
// emulated line of its own between two network namespaces (line_tun.h) and the product's whole
// host and viewer at its ends (play.h). --quick: the first line and of each scene
// a little, does it work at all; --seed: which packets are lost; --one: one session after the
// other; WORD: only lines whose name contains one of them.
//
// Status 1 when a session could not be played to its end, figures never matter to it; 3, with
// the reason, where the system refuses TUN devices or namespaces; 2 on a usage error.
#include "bench/lines/line_tun.h"
#include "bench/lines/play.h"
#include "bench/machine.h"
#include "protocol/clock.h"

#include <algorithm>
#include <fcntl.h>
#include <math.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

static constexpr uint64_t MS = 1000;
static constexpr uint64_t SECOND = 1000000;
static constexpr uint64_t QUEUE_US = 200 * MS;
static constexpr uint64_t RUN_LIMIT_US = 120 * SECOND;

struct plan {
    const char *name;
    uint64_t rate, trip_us; // bytes a second
    uint32_t loss;          // of a million
    uint64_t ack_late_us;
};
static const plan PLANS[] = {
    {"20 Mbit/s, 40 ms", 2500000, 40 * MS, 0, 0},
    {"5 Mbit/s, 100 ms", 625000, 100 * MS, 0, 0},
    {"20 Mbit/s, 40 ms, answers 20 ms late", 2500000, 40 * MS, 0, 20 * MS},
    {"5 Mbit/s, 100 ms, answers 20 ms late", 625000, 100 * MS, 0, 20 * MS},
    {"20 Mbit/s, 40 ms, 1 % loss", 2500000, 40 * MS, 10000, 0},
    {"5 Mbit/s, 100 ms, 1 % loss", 625000, 100 * MS, 10000, 0},
};

struct arguments {
    const char *json;
    uint64_t seed;
    bool quick, one;
    std::vector<std::string> words;
};

// ---------------------------------------------------------------------------------------
// Figures

enum figure {
    SHARE,        // of the line that endless noise fills, after its first second
    QUEUE_MEDIAN, // milliseconds in the line's queue meanwhile
    QUEUE_95,
    DROPPED, // packets, in the whole session
    LOST,
    AGE_MEDIAN, // of a frame of the noise at the viewer, without the line's delay
    AGE_95,
    FIRST_PAGE,    // from a session's beginning to a whole page of text
    TYPING_MEDIAN, // milliseconds from a key to its character, beside a video
    TYPING_95,
    RETURN_MEDIAN, // from the change to the whole page, that the viewer has cached
    RETURN_MOST,
    DRAG_MEDIAN, // from the window's place to its picture
    DRAG_95,
    DRAG_SEEN, // places a second that were shown
    FIGURES,
};

struct figure_kind {
    const char *key, *text;
    double target; // 0: none; above the round trip for those that are delays
    bool over_trip;
    bool more_is_better;
};
static const figure_kind KINDS[FIGURES] = {
    {"share", "endless noise: of the line, %", 90, false, true},
    {"queue_median_ms", "its queue, median, ms", 60, false, false},
    {"queue_95_ms", "its queue, 95th, ms", 100, false, false},
    {"dropped", "packets dropped, in all", 0, false, false},
    {"lost", "packets lost, in all", 0, false, false},
    {"age_median_ms", "noise, age of a frame over half the round trip, median, ms", 0, false,
     false},
    {"age_95_ms", "the same, 95th, ms", 0, false, false},
    {"first_page_ms", "a session's first page, ms", 0, false, false},
    {"typing_median_ms", "typing beside a video, median, ms", 110, true, false},
    {"typing_95_ms", "the same, 95th, ms", 0, false, false},
    {"return_median_ms", "back to a cached screen, median, ms", 150, true, false},
    {"return_most_ms", "the same, most, ms", 0, false, false},
    {"drag_median_ms", "window drag, median, ms", 60, true, false},
    {"drag_95_ms", "the same, 95th, ms", 0, false, false},
    {"drag_seen", "window drag, places shown a second", 0, false, true},
};

// Of one session; in memory that its process shares with ours.
struct outcome {
    bool right;
    char problem[160];
    double figures[FIGURES]; // NAN where it did not come about
};

template <class number> static double percentile(std::vector<number> values, size_t percent)
{
    if (values.empty())
        return NAN;
    std::sort(values.begin(), values.end());
    return (double)values[(values.size() - 1) * percent / 100];
}

// Delays in milliseconds; what never showed counts as longer than all that did.
static std::vector<double> delays(const uint64_t *from, const uint64_t *to, int count)
{
    std::vector<double> all;
    for (int i = 0; i < count; i++)
        all.push_back(to[i] == 0 ? INFINITY : (double)(to[i] - from[i]) / 1000);
    return all;
}

static void take_figures(const plan &p, const play_record &play, const line_tun &line,
                         double *figures)
{
    uint64_t begin = play.noise_begin_us + SECOND, end = play.noise_end_us;
    const line_queue &down = line.from[LINE_HOST];
    line_count noise = line_queue_count(down, begin, end);
    line_count all = line_queue_count(down, 0, UINT64_MAX);
    std::vector<uint32_t> waits = line_queue_waits(down, begin, end);
    figures[SHARE] =
        (double)noise.carried_bytes * 100 / ((double)p.rate * (double)(end - begin) / SECOND);
    figures[QUEUE_MEDIAN] = percentile(waits, 50) / 1000;
    figures[QUEUE_95] = percentile(waits, 95) / 1000;
    figures[DROPPED] = (double)all.dropped;
    figures[LOST] = (double)all.lost;

    std::vector<uint32_t> ages;
    for (int i = 0; i < play.frames; i++)
        if (play.frame_us[i] >= begin && play.frame_us[i] < end)
            ages.push_back(play.frame_age_ms[i]);
    figures[AGE_MEDIAN] = percentile(ages, 50) - (double)p.trip_us / 2000;
    figures[AGE_95] = percentile(ages, 95) - (double)p.trip_us / 2000;
    figures[FIRST_PAGE] =
        play.first_page_us == 0 ? INFINITY : (double)play.first_page_us / 1000;

    std::vector<double> keys = delays(play.key_pressed_us, play.key_shown_us, PLAY_KEYS);
    figures[TYPING_MEDIAN] = percentile(keys, 50);
    figures[TYPING_95] = percentile(keys, 95);
    std::vector<double> returns;
    for (uint64_t us : play.return_us)
        returns.push_back(us == 0 ? INFINITY : (double)us / 1000);
    figures[RETURN_MEDIAN] = percentile(returns, 50);
    figures[RETURN_MOST] = percentile(returns, 100);
    uint64_t drawn[PLAY_PLACES];
    for (int i = 0; i < PLAY_PLACES; i++)
        drawn[i] = play.place_us[i];
    std::vector<double> places = delays(drawn, play.place_shown_us, PLAY_PLACES);
    figures[DRAG_MEDIAN] = percentile(places, 50);
    figures[DRAG_95] = percentile(places, 95);
    figures[DRAG_SEEN] = (double)play.places_seen * SECOND / (PLAY_PLACES * PLAY_PERIOD_US);
}

// ---------------------------------------------------------------------------------------
// Sessions

template <class record> static record *shared()
{
    void *memory = mmap(nullptr, sizeof(record), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        perror("mmap");
        exit(1);
    }
    return (record *)memory; // zeroed
}

// A process that ends when this one does, however that ends.
static pid_t fork_tied()
{
    pid_t parent = getpid();
    pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(1);
    }
    return child;
}

// The calling thread, and what it starts, runs ahead of what else the machine does, where that
// is allowed. As the product's threads do on the systems that they are for.
static void go_ahead(int priority)
{
    sched_param real_time = {};
    real_time.sched_priority = priority;
    (void)sched_setscheduler(0, SCHED_RR, &real_time);
}

static pid_t start_side(const line_tun &line, line_side side, play_record *play)
{
    pid_t child = fork_tied();
    if (child != 0)
        return child;
    if (!line_enter(line, side))
        _exit(1);
    // What the product prints is no result.
    int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(null, STDOUT_FILENO);
    if (!play->quick)
        go_ahead(1);
    if (side == LINE_HOST)
        play_host(play);
    else
        play_viewer(play);
    _exit(0);
}

static void stop_side(pid_t child)
{
    if (child > 0) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
}

// Waits for a process, but not for ever; false when it did not end by itself.
static bool wait_side(pid_t child, uint64_t limit_us)
{
    uint64_t begin = clock_us();
    while (clock_us() - begin < limit_us) {
        pid_t ended = waitpid(child, nullptr, WNOHANG);
        if (ended != 0)
            return ended == child;
        clock_sleep_ms(10);
    }
    return false;
}

// Plays one session, in a process of its own.
static void play_session(const plan &p, bool paced, const arguments &args, outcome *result)
{
    std::string reason;
    static line_tun line;
    line_settings down = {.rate = p.rate,
                          .delay_us = p.trip_us / 2,
                          .queue_us = QUEUE_US,
                          .loss = p.loss,
                          .seed = args.seed * 2 + 1};
    line_settings up = down;
    up.seed += 1000;
    play_record *play = shared<play_record>();
    play->paced = paced;
    play->quick = args.quick;
    play->ack_late_us = p.ack_late_us;
    if (!line_open(&line, down, up, &reason)) {
        snprintf(result->problem, sizeof result->problem, "%s", reason.c_str());
        return;
    }
    pid_t host = start_side(line, LINE_HOST, play);
    pid_t viewer = start_side(line, LINE_VIEWER, play);
    std::atomic<bool> carried = false;
    std::thread carrier([&] {
        if (!play->quick)
            go_ahead(2);
        carried = line_run(&line);
    });
    bool ended = wait_side(viewer, RUN_LIMIT_US);
    stop_side(host);
    if (!ended)
        stop_side(viewer);
    line.stop = true;
    carrier.join();
    uint64_t drops = line_device_drops(line, LINE_HOST) + line_device_drops(line, LINE_VIEWER);
    const char *problem = !carried          ? "a device of the line failed"
                          : !ended          ? "the session did not end"
                          : !play->complete ? "the session broke off"
                          : play->quick && play->first_page_us == 0
                              ? "the first page was never shown"
                          : drops > 0 ? "the emulator was not let run in time"
                                      : nullptr;
    if (problem)
        snprintf(result->problem, sizeof result->problem, "%s", problem);
    else
        take_figures(p, *play, line, result->figures);
    result->right = !problem;
}

static pid_t start_session(const plan &p, bool paced, const arguments &args, outcome *result)
{
    fflush(stdout);
    pid_t child = fork_tied();
    if (child == 0) {
        play_session(p, paced, args, result);
        _exit(0);
    }
    return child;
}

// ---------------------------------------------------------------------------------------
// Results

struct pair {
    const plan *line;
    outcome *paced, *unpaced;
};

static std::string number_text(double value)
{
    if (isinf(value))
        return "never";
    if (isnan(value))
        return "-";
    char text[32];
    snprintf(text, sizeof text, "%.0f", value);
    return text;
}

static bool has_target(const plan &p, figure f)
{
    return p.loss == 0 && (KINDS[f].target != 0 || f == DROPPED);
}

static double target_of(const plan &p, figure f)
{
    return KINDS[f].target + (KINDS[f].over_trip ? (double)p.trip_us / 1000 : 0);
}

static bool met(const plan &p, figure f, double value)
{
    return KINDS[f].more_is_better ? value >= target_of(p, f) : value <= target_of(p, f);
}

// For all lines; only those that lose nothing have one.
static std::string target_text(figure f)
{
    if (KINDS[f].target == 0 && f != DROPPED)
        return "";
    char text[64];
    snprintf(text, sizeof text, "%s %s%.0f", KINDS[f].more_is_better ? "at least" : "at most",
             KINDS[f].over_trip ? "round trip + " : "", KINDS[f].target);
    return text;
}

static void print_pair(const pair &result)
{
    printf("\n%-60s %10s %10s  target\n", result.line->name, "by bytes", "without");
    for (const outcome *o : {result.paced, result.unpaced})
        if (!o->right)
            printf("  %s: %s\n", o == result.paced ? "by bytes" : "without", o->problem);
    for (int i = 0; i < FIGURES; i++) {
        figure f = (figure)i;
        std::string paced =
            result.paced->right ? number_text(result.paced->figures[f]) : "failed";
        std::string unpaced =
            result.unpaced->right ? number_text(result.unpaced->figures[f]) : "failed";
        printf("  %-58s %10s %10s", KINDS[f].text, paced.c_str(), unpaced.c_str());
        if (has_target(*result.line, f))
            printf("  %s %.0f, %s",
                   KINDS[f].more_is_better ? ">=" : "<=", target_of(*result.line, f),
                   met(*result.line, f, result.paced->figures[f]) ? "met" : "MISSED");
        printf("\n");
    }
    fflush(stdout);
}

static void json_figures(FILE *file, const char *name, const outcome &o)
{
    fprintf(file, "\"%s\": {", name);
    const char *comma = "";
    for (int i = 0; o.right && i < FIGURES; i++) {
        double value = o.figures[i];
        fprintf(file, "%s\"%s\": ", comma, KINDS[i].key);
        if (isfinite(value))
            fprintf(file, "%.1f", value);
        else
            fprintf(file, "null");
        comma = ", ";
    }
    if (!o.right)
        fprintf(file, "\"problem\": \"%s\"", o.problem);
    fprintf(file, "}");
}

static bool write_json(const char *path, const std::vector<pair> &results, uint64_t seed,
                       const std::vector<std::pair<std::string, std::string>> &facts)
{
    FILE *file = fopen(path, "w");
    if (!file) {
        perror(path);
        return false;
    }
    fprintf(file, "{\"machine\": {");
    for (const auto &fact : facts)
        fprintf(file, "\"%s\": \"%s\", ", fact.first.c_str(), fact.second.c_str());
    fprintf(file, "\"seed\": \"%llu\"},\n\"figures\": [\n", (unsigned long long)seed);
    for (int i = 0; i < FIGURES; i++)
        fprintf(file,
                "{\"key\": \"%s\", \"text\": \"%s\", \"more\": %s, \"target\": \"%s\"}%s\n",
                KINDS[i].key, KINDS[i].text, KINDS[i].more_is_better ? "true" : "false",
                target_text((figure)i).c_str(), i + 1 < FIGURES ? "," : "");
    fprintf(file, "],\n\"lines\": [\n");
    for (size_t i = 0; i < results.size(); i++) {
        const plan &p = *results[i].line;
        fprintf(file, "{\"line\": \"%s\", \"targets\": {", p.name);
        const char *comma = "";
        for (int f = 0; f < FIGURES; f++)
            if (has_target(p, (figure)f)) {
                fprintf(file, "%s\"%s\": %.0f", comma, KINDS[f].key, target_of(p, (figure)f));
                comma = ", ";
            }
        fprintf(file, "}, ");
        json_figures(file, "paced", *results[i].paced);
        fprintf(file, ", ");
        json_figures(file, "unpaced", *results[i].unpaced);
        fprintf(file, "}%s\n", i + 1 < results.size() ? "," : "");
    }
    fprintf(file, "]}\n");
    return fclose(file) == 0;
}

// ---------------------------------------------------------------------------------------

static bool parse(int argc, char **argv, arguments *args)
{
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--json") == 0 && i + 1 < argc)
            args->json = argv[++i];
        else if (strcmp(argv[i], "--seed") == 0 && i + 1 < argc)
            args->seed = strtoull(argv[++i], nullptr, 0);
        else if (strcmp(argv[i], "--quick") == 0)
            args->quick = true;
        else if (strcmp(argv[i], "--one") == 0)
            args->one = true;
        else if (argv[i][0] == '-')
            return false;
        else
            args->words.push_back(argv[i]);
    }
    return true;
}

static bool wanted(const plan &p, const std::vector<std::string> &words)
{
    for (const std::string &word : words)
        if (std::string(p.name).find(word) != std::string::npos)
            return true;
    return words.empty();
}

int main(int argc, char **argv)
{
    arguments args = {};
    args.seed = 1;
    if (!parse(argc, argv, &args)) {
        fprintf(stderr,
                "usage: qv_lines [--quick] [--json FILE] [--seed N] [--one] [WORD...]\n");
        return 2;
    }
    std::string reason;
    static line_tun trial;
    line_settings any = {.rate = 1, .delay_us = 0, .queue_us = 0, .loss = 0, .seed = 1};
    if (!line_open(&trial, any, any, &reason)) {
        printf("no emulated lines here: %s\n", reason.c_str());
        return 3;
    }
    line_close(&trial);
    if (!fonts_open())
        return 1;
    auto facts = machine_facts();
    for (const auto &fact : facts)
        printf("%-12s %s\n", fact.first.c_str(), fact.second.c_str());
    printf("%-12s %llu\n", "seed", (unsigned long long)args.seed);
    play_draw_pages();

    bool right = true;
    std::vector<pair> results;
    for (const plan &p : PLANS) {
        if (!wanted(p, args.words) || (args.quick && &p != PLANS))
            continue;
        pair result = {&p, shared<outcome>(), shared<outcome>()};
        pid_t first = start_session(p, true, args, result.paced);
        if (args.one)
            waitpid(first, nullptr, 0);
        pid_t second = start_session(p, false, args, result.unpaced);
        if (!args.one)
            waitpid(first, nullptr, 0);
        waitpid(second, nullptr, 0);
        if (args.quick)
            printf("%s: by bytes %s, without %s\n", p.name,
                   result.paced->right ? "played" : result.paced->problem,
                   result.unpaced->right ? "played" : result.unpaced->problem);
        else
            print_pair(result);
        right = right && result.paced->right && result.unpaced->right;
        results.push_back(result);
    }
    fonts_close();
    if (args.json && !write_json(args.json, results, args.seed, facts))
        return 1;
    if (results.empty())
        fprintf(stderr, "qv_lines: no such line\n");
    return right && !results.empty() ? 0 : 1;
}
