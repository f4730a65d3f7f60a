#include "host/host_cli.h"
#include "tests/test.h"

#include <vector>

using namespace host;

TEST_CASE("the host takes one option at most, and asks for the usage otherwise")
{
    const struct {
        std::vector<const char *> arguments;
        host_command command;
    } rows[] = {
        {{}, HOST_RUN_DIRECT}, // no program name either
        {{"qv_host"}, HOST_RUN_DIRECT},
        {{"qv_host", "-r"}, HOST_RUN_RELAY},
        {{"qv_host", "-q"}, HOST_QUIT},
        {{"qv_host", ""}, HOST_USAGE},
        {{"qv_host", "-"}, HOST_USAGE},
        {{"qv_host", "-h"}, HOST_USAGE},
        {{"qv_host", "-R"}, HOST_USAGE},
        {{"qv_host", "-rq"}, HOST_USAGE},
        {{"qv_host", "r"}, HOST_USAGE},
        {{"qv_host", "-r", "-r"}, HOST_USAGE},
        {{"qv_host", "-q", ""}, HOST_USAGE},
    };
    for (const auto &row : rows) {
        std::vector<char *> argv;
        for (const char *argument : row.arguments)
            argv.push_back(const_cast<char *>(argument));
        argv.push_back(nullptr);
        CAPTURE(argv.size());
        CHECK(host_parse_arguments((int)argv.size() - 1, argv.data()) == row.command);
    }
}
