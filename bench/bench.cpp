// Rounds, medians and the two forms in which a line is written.
#include "bench/bench.h"

#include <algorithm>
#include <alloca.h>
#include <math.h>
#include <string.h>
#include <time.h>

bench_settings bench;

int64_t bench_now()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

int64_t bench_processor_time()
{
    timespec now = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

// Where the stack lies differs from process to process, and with it whether a codec's table on
// it collides with its input in the caches. So every run has it somewhere else.
static double timed_run(const bench_line &line, const bench_side &side)
{
    static bench_random random = {12345};
    volatile char *unused = (volatile char *)alloca(16 + 16 * random.below(1024));
    *unused = 0;
    if (line.before)
        line.before();
    int64_t start = bench_processor_time();
    side.run();
    return (double)(bench_processor_time() - start) / line.units;
}

void bench_measure(bench_line *line)
{
    int64_t end = bench_now() + (int64_t)(bench.pass_seconds * 1e9);
    do {
        // Who runs first changes from round to round: the second finds warmer caches.
        bool own_first = line->own_times.size() % 2 == 0;
        if (own_first)
            line->own_times.push_back(timed_run(*line, line->own));
        line->other_times.push_back(timed_run(*line, line->other));
        if (!own_first)
            line->own_times.push_back(timed_run(*line, line->own));
    } while (!bench.quick && bench_now() < end);
}

bench_spread bench_spread_of(std::vector<double> values)
{
    if (values.empty())
        return {};
    std::sort(values.begin(), values.end());
    auto at = [&](double part) { return values[(size_t)(part * (double)(values.size() - 1))]; };
    return {at(0.25), at(0.5), at(0.75)};
}

bench_spread bench_ratio_of(const bench_line &line)
{
    std::vector<double> ratios;
    for (size_t i = 0; i < std::min(line.own_times.size(), line.other_times.size()); i++)
        ratios.push_back(line.sense == BENCH_SPEED ? line.other_times[i] / line.own_times[i]
                                                   : line.own_times[i] / line.other_times[i]);
    return bench_spread_of(ratios);
}

bool bench_met(const bench_line &line)
{
    double ratio = bench_ratio_of(line).median;
    return line.target == 0 ||
           (line.sense == BENCH_SPEED ? ratio >= line.target : ratio <= line.target);
}

// A time with three digits that count, in the unit that suits it.
static std::string time_text(double ns)
{
    const char *unit = ns < 1e3 ? "ns" : ns < 1e6 ? "us" : "ms";
    double value = ns < 1e3 ? ns : ns < 1e6 ? ns / 1e3 : ns / 1e6;
    char text[32];
    snprintf(text, sizeof text, "%.*f %s", value < 10 ? 2 : value < 100 ? 1 : 0, value, unit);
    return text;
}

static std::string memory_text(double bytes)
{
    char text[32];
    snprintf(text, sizeof text, "%.1f MiB", bytes / 1048576);
    return text;
}

static std::string spread_text(const bench_spread &spread, bool bytes)
{
    if (bytes)
        return memory_text(spread.median);
    double half = spread.median > 0 ? 50 * (spread.high - spread.low) / spread.median : 0;
    char text[64];
    snprintf(text, sizeof text, "%9s %4s", time_text(spread.median).c_str(),
             ("+-" + std::to_string((int)lround(half)) + "%").c_str());
    return text;
}

void bench_print(const bench_line &line)
{
    bench_spread own = bench_spread_of(line.own_times);
    printf("  %-38s %s a %-6s", line.name.c_str(), spread_text(own, line.bytes).c_str(),
           line.unit.c_str());
    if (!line.other_times.empty()) {
        bench_spread other = bench_spread_of(line.other_times);
        bench_spread ratio = bench_ratio_of(line);
        printf("  %-26s %s  %s %.2f (%.2f..%.2f)", line.other.name.c_str(),
               spread_text(other, line.bytes).c_str(),
               line.bytes                  ? "size "
               : line.sense == BENCH_SPEED ? "speed"
                                           : "time ",
               ratio.median, ratio.low, ratio.high);
        if (line.target != 0)
            printf("  %s %.2f %s", line.sense == BENCH_SPEED ? ">=" : "<=", line.target,
                   bench_met(line) ? "met" : "MISSED");
    }
    printf("%s%s\n", line.note.empty() ? "" : "  ", line.note.c_str());
    for (size_t i = 0; i < line.parts.size(); i++)
        printf("%s%s %s%s", i == 0 ? "      " : ", ", line.parts[i].first.c_str(),
               time_text(line.parts[i].second).c_str(), i + 1 == line.parts.size() ? "\n" : "");
    fflush(stdout);
}

static std::string quoted(const std::string &text)
{
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\')
            out += '\\';
        if ((unsigned char)c >= ' ')
            out += c;
    }
    return out + "\"";
}

static std::string spread_json(const bench_spread &spread)
{
    char text[128];
    snprintf(text, sizeof text, "{\"low\": %.6g, \"median\": %.6g, \"high\": %.6g}", spread.low,
             spread.median, spread.high);
    return text;
}

void bench_json(FILE *file, const bench_line &line)
{
    fprintf(file, "{\"group\": %s, \"name\": %s, \"unit\": %s, \"rounds\": %zu, \"ns\": %s",
            quoted(line.group).c_str(), quoted(line.name).c_str(), quoted(line.unit).c_str(),
            line.own_times.size(), spread_json(bench_spread_of(line.own_times)).c_str());
    if (!line.other_times.empty()) {
        fprintf(file, ", \"against\": %s, \"against_ns\": %s, \"sense\": \"%s\", \"ratio\": %s",
                quoted(line.other.name).c_str(),
                spread_json(bench_spread_of(line.other_times)).c_str(),
                line.sense == BENCH_SPEED ? "speed" : "time",
                spread_json(bench_ratio_of(line)).c_str());
        if (line.target != 0)
            fprintf(file, ", \"target\": %g, \"met\": %s", line.target,
                    bench_met(line) ? "true" : "false");
    }
    if (line.bytes) // all of "ns" then
        fprintf(file, ", \"bytes\": true");
    fprintf(file, ", \"note\": %s, \"parts_ns\": {", quoted(line.note).c_str());
    for (size_t i = 0; i < line.parts.size(); i++)
        fprintf(file, "%s%s: %.6g", i == 0 ? "" : ", ", quoted(line.parts[i].first).c_str(),
                line.parts[i].second);
    fprintf(file, "}}");
}
