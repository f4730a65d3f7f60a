// What intra tiles save on a slow line.
#ifndef QV_BENCH_INTRA_H
#define QV_BENCH_INTRA_H

#include "bench/bench.h"

// Plays scenes in which one picture replaces another over the whole road, on a line of
// 20 Mbit/s with a round trip of 40 ms, with and without intra tiles, and appends a line of
// bytes for each.
void intra_measure(std::vector<bench_line> *lines, const std::vector<std::string> &words);

#endif
