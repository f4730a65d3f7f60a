// What a benchmark is made of: two sides that do the same work in turn, round by round, and
// the line that says how they compare.
//
// A ratio is taken in each round, of two runs that follow each other, and the median of the
// ratios is what counts: a machine that slows down for a while slows both sides of a round.
#ifndef QV_BENCH_BENCH_H
#define QV_BENCH_BENCH_H

#include <functional>
#include <stdint.h>
#include <stdio.h>
#include <string>
#include <utility>
#include <vector>

enum bench_sense {
    BENCH_SPEED, // the other side's time over ours: larger is better
    BENCH_TIME,  // our time over the other side's: smaller is better
};

struct bench_side {
    std::string name;
    std::function<void()> run;
};

struct bench_line {
    const char *group;
    std::string name;
    std::string unit; // what the times are of: "tile", "frame", "record"
    double units = 1; // of them in one run
    bench_sense sense = BENCH_SPEED;
    double target = 0;  // the ratio to reach; 0: none
    bool bytes = false; // what is measured is memory, not time
    bench_side own, other;
    std::function<void()> before; // each run of either side, not timed; may be empty
    // Whether both sides did their work right. Asked once, after all rounds.
    std::function<bool()> right;
    std::string note;
    std::vector<std::pair<std::string, double>> parts; // name and nanoseconds a unit

    // Nanoseconds a unit, one of each a round. Benchmarks that cannot be put into two
    // functions fill these themselves.
    std::vector<double> own_times, other_times;
};

struct bench_settings {
    bool quick;          // one round of each line, on small screens: does it work at all?
    bool brief;          // fewer scenes and key presses: one of many short runs
    int32_t passes;      // over all lines, so that a line is not measured in one spell
    double pass_seconds; // for one line in one pass
};
extern bench_settings bench;

// Deterministic numbers for pictures and keys (xorshift64*).
struct bench_random {
    uint64_t state;
    uint64_t next()
    {
        state ^= state >> 12;
        state ^= state << 25;
        state ^= state >> 27;
        return state * 0x2545F4914F6CDD1Dull;
    }
    uint32_t below(uint32_t n)
    {
        return (uint32_t)((next() >> 32) * n >> 32);
    }
};

// Monotonic time, and the calling thread's processor time, in nanoseconds.
int64_t bench_now();
int64_t bench_processor_time();

// Keeps a result from being optimised away.
inline void bench_keep(uint64_t value)
{
    asm volatile("" : : "r"(value) : "memory");
}

// One pass over a line: rounds for bench.pass_seconds. Processor time is taken, so that a run
// which another program interrupts does not count as a slow one.
void bench_measure(bench_line *line);

struct bench_spread {
    double low, median, high; // quartiles
};
bench_spread bench_spread_of(std::vector<double> values);
bench_spread bench_ratio_of(const bench_line &line);

// Whether the line reaches its target; a line without one does.
bool bench_met(const bench_line &line);

// The line's results, for people and as one JSON object.
void bench_print(const bench_line &line);
void bench_json(FILE *file, const bench_line &line);

#endif
