// The tile cache between sessions: its file, and what a second connect saves.
#ifndef QV_BENCH_TILE_STORE_H
#define QV_BENCH_TILE_STORE_H

#include "bench/bench.h"

// Opens and saves a full cache, connects twice, and appends the lines, measured. Lines that
// have none of the words in their name or the group's are left out.
void tile_store_measure(std::vector<bench_line> *lines, const std::vector<std::string> &words);

#endif
