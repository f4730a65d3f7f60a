// What the benchmarks ran on, as far as the system says.
#ifndef QV_BENCH_MACHINE_H
#define QV_BENCH_MACHINE_H

#include <string>
#include <utility>
#include <vector>

// Name and value, in the order in which they are shown.
std::vector<std::pair<std::string, std::string>> machine_facts();

#endif
