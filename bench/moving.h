// What looking for moves brings and costs.
#ifndef QV_BENCH_MOVING_H
#define QV_BENCH_MOVING_H

#include "bench/bench.h"

// Plays scenes in which something moves, and some in which nothing does, over the whole road
// with and without the search and appends their lines, measured.
void moving_measure(std::vector<bench_line> *lines, const std::vector<std::string> &words);

#endif
