// qv_bench: measures what a session does and says how it compares. `make bench` runs it
// (tools/bench).
//
//   qv_bench [--quick] [--seconds N] [--json FILE] [WORD...]
//
// --quick: one round of each line on small screens; --seconds: how long the lines of the
// first four groups take together, and below 20 less of the others too; WORD: only
// lines whose group or name contains one of them. Status 1 when a result was wrong, speeds
// never matter to it; 2 on a usage error.
#include "bench/groups.h"
#include "bench/intra.h"
#include "bench/machine.h"
#include "bench/memory.h"
#include "bench/moving.h"
#include "bench/photon.h"
#include "bench/picture.h"
#include "bench/road.h"
#include "bench/tile_store.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

struct arguments {
    const char *json;
    double seconds;
    std::vector<std::string> words;
};

static bool parse(int argc, char **argv, arguments *args)
{
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--quick") == 0)
            bench.quick = true;
        else if (strcmp(argv[i], "--json") == 0 && i + 1 < argc)
            args->json = argv[++i];
        else if (strcmp(argv[i], "--seconds") == 0 && i + 1 < argc)
            args->seconds = atof(argv[++i]);
        else if (argv[i][0] == '-')
            return false;
        else
            args->words.push_back(argv[i]);
    }
    return args->seconds > 0;
}

static bool wanted(const bench_line &line, const std::vector<std::string> &words)
{
    for (const std::string &word : words)
        if (line.name.find(word) != std::string::npos ||
            std::string(line.group).find(word) != std::string::npos)
            return true;
    return words.empty();
}

static void write_json(const char *path, const std::vector<bench_line> &lines)
{
    FILE *file = fopen(path, "w");
    if (!file) {
        perror(path);
        exit(1);
    }
    fprintf(file, "{\"machine\": {");
    const char *comma = "";
    for (const auto &fact : machine_facts()) {
        fprintf(file, "%s\"%s\": \"%s\"", comma, fact.first.c_str(), fact.second.c_str());
        comma = ", ";
    }
    fprintf(file, "},\n\"lines\": [\n");
    for (size_t i = 0; i < lines.size(); i++) {
        bench_json(file, lines[i]);
        fprintf(file, i + 1 < lines.size() ? ",\n" : "\n");
    }
    fprintf(file, "]}\n");
    fclose(file);
}

int main(int argc, char **argv)
{
    arguments args = {};
    args.seconds = 40;
    if (!parse(argc, argv, &args)) {
        fprintf(stderr, "usage: qv_bench [--quick] [--seconds N] [--json FILE] [WORD...]\n");
        return 2;
    }
    bench.brief = args.seconds < 20;
    if (!fonts_open())
        return 1;
    for (const auto &fact : machine_facts())
        printf("%-12s %s\n", fact.first.c_str(), fact.second.c_str());

    std::vector<bench_line> lines, all;
    block_codec_lines(&all);
    tile_hash_lines(&all);
    frame_compare_lines(&all);
    record_lines(&all);
    for (bench_line &line : all)
        if (wanted(line, args.words))
            lines.push_back(line);

    bench.passes = bench.quick ? 1 : 5;
    bench.pass_seconds =
        args.seconds / bench.passes / (double)(lines.empty() ? 1 : lines.size());
    for (int32_t pass = 0; pass < bench.passes; pass++)
        for (bench_line &line : lines)
            bench_measure(&line);

    // The product prints lines of its own, which are no results.
    fflush(stdout);
    int shown = dup(STDOUT_FILENO);
    int hidden = open("/dev/null", O_WRONLY);
    dup2(hidden, STDOUT_FILENO);
    memory_measure(&lines, args.words);
    road_measure(&lines, args.words);
    moving_measure(&lines, args.words);
    intra_measure(&lines, args.words);
    photon_measure(&lines, args.words);
    tile_store_measure(&lines, args.words);
    fflush(stdout);
    dup2(shown, STDOUT_FILENO);
    close(shown);
    close(hidden);

    int32_t wrong = 0;
    const char *group = "";
    printf("\nMedian processor time of a unit of work, half the distance of its quartiles in "
           "percent; the "
           "other side likewise;\nmedian and quartiles of the ratio in each round.\n");
    for (const bench_line &line : lines) {
        if (strcmp(group, line.group) != 0)
            printf("\n%s\n", line.group);
        group = line.group;
        bench_print(line);
        if (line.right && !line.right()) {
            printf("  ^ WRONG RESULTS\n");
            wrong++;
        }
    }
    if (args.json)
        write_json(args.json, lines);
    fonts_close();
    if (wrong > 0 || lines.empty()) {
        fprintf(stderr, "bench: %zu lines, %d with wrong results\n", lines.size(), wrong);
        return 1;
    }
    return 0;
}
