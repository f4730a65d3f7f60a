// The groups of lines that `make bench` measures, in its order.
#ifndef QV_BENCH_GROUPS_H
#define QV_BENCH_GROUPS_H

#include "bench/bench.h"

// These append lines whose two sides bench_measure runs.
void block_codec_lines(std::vector<bench_line> *lines);
void tile_hash_lines(std::vector<bench_line> *lines);
void frame_compare_lines(std::vector<bench_line> *lines);
void record_lines(std::vector<bench_line> *lines);

#endif
