// The whole road of a frame, host and viewer in one thread.
#ifndef QV_BENCH_ROAD_H
#define QV_BENCH_ROAD_H

#include "bench/bench.h"

// Plays every scene on screens of several sizes and appends their lines, measured. Scenes
// whose line has none of the words in its name are left out.
void road_measure(std::vector<bench_line> *lines, const std::vector<std::string> &words);

#endif
