// What host and viewer need of memory.
#ifndef QV_BENCH_MEMORY_H
#define QV_BENCH_MEMORY_H

#include "bench/bench.h"
#include "bench/stages.h"

// A line of what a side held at most, against what its buffers come to if they are as large as
// they have to be for the largest record so far, and 16 MiB.
bench_line memory_line(memory_side side, const std::string &name, int32_t width, int32_t height,
                       double peak);

// Measures a process that is a host only and one that is a viewer only, and appends their
// lines.
void memory_measure(std::vector<bench_line> *lines, const std::vector<std::string> &words);

#endif
