// From a key press at the viewer to the changed pixel at the viewer, over loopback.
#ifndef QV_BENCH_PHOTON_H
#define QV_BENCH_PHOTON_H

#include "bench/bench.h"

// Runs whole sessions and appends their lines, measured; none when no word is in the group's
// name.
void photon_measure(std::vector<bench_line> *lines, const std::vector<std::string> &words);

#endif
