#include "bench/machine.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

// The first line of a file that begins so, after its colon; the first line at all for "".
static std::string line_of(const char *path, const char *beginning)
{
    std::string found;
    FILE *file = fopen(path, "r");
    char line[1024];
    while (file && found.empty() && fgets(line, sizeof line, file)) {
        if (strncmp(line, beginning, strlen(beginning)) != 0)
            continue;
        const char *text = *beginning ? strchr(line, ':') : line;
        text = !text ? line : *beginning ? text + 2 : text;
        found.assign(text, strcspn(text, "\n"));
    }
    if (file)
        fclose(file);
    return found.empty() ? "not known" : found;
}

std::vector<std::pair<std::string, std::string>> machine_facts()
{
    utsname system = {};
    uname(&system);
    char date[32] = "";
    time_t now = time(nullptr);
    strftime(date, sizeof date, "%Y-%m-%d %H:%M", localtime(&now));
    const char *commit = getenv("QV_BENCH_COMMIT"); // tools/bench knows it
    return {
        {"commit", commit ? commit : "not known"},
        {"date", date},
        {"processor", line_of("/proc/cpuinfo", "model name")},
        {"processors", std::to_string(sysconf(_SC_NPROCESSORS_ONLN))},
        {"frequency", line_of("/proc/cpuinfo", "cpu MHz") + " MHz, governor " +
                          line_of("/sys/devices/system/cpu/cpu0/cpufreq/scaling_governor", "")},
        {"hypervisor",
         line_of("/proc/cpuinfo", "flags").find(" hypervisor") != std::string::npos ? "yes"
                                                                                    : "no"},
        {"memory", line_of("/proc/meminfo", "MemTotal")},
        {"load before", line_of("/proc/loadavg", "")},
        {"system", std::string(system.sysname) + " " + system.release},
#ifdef __clang__
        {"compiler", "clang " __clang_version__},
#else
        {"compiler", "gcc " __VERSION__},
#endif
        {"build", QV_BENCH_BUILD},
    };
}
