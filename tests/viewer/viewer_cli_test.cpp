// Fakes: session_record
#include "viewer/viewer_cli.h"

#include "tests/fakes/session_record.h"
#include "tests/identity/temp_data_dir.h"
#include "tests/test.h"

#include <string.h>
#ifdef _WIN32
#include <io.h>
#else
#include <unistd.h>
#endif

using namespace viewer;

constexpr int ARGUMENTS_MAX = 10;

// Runs qv_client with these arguments, on a machine with this relay.txt or none.
static int run(int count, const char *const *arguments, const char *relay_file = nullptr)
{
    temp_data_dir temp;
    if (relay_file)
        temp.write("relay.txt", relay_file);
    char program[] = "qv_client";
    char copies[ARGUMENTS_MAX][300];
    char *argv[ARGUMENTS_MAX + 2] = {program};
    for (int i = 0; i < count; i++) {
        snprintf(copies[i], sizeof copies[i], "%s", arguments[i]);
        argv[i + 1] = copies[i];
    }
    return viewer_cli_main(count + 1, argv);
}

TEST_CASE("arguments become a session's")
{
    static const struct {
        const char *arguments[ARGUMENTS_MAX];
        const char *host, *port, *host_id, *password;
        bool via_relay;
    } rows[] = {
        {{"10.0.0.5", "-p", "pw"}, "10.0.0.5", "7777", "qv-demo", "pw", false},
        {{"10.0.0.5"}, "10.0.0.5", "7777", "qv-demo", "", false},
        {{"-p", "pw", "10.0.0.5"}, "10.0.0.5", "7777", "qv-demo", "pw", false},
        {{"10.0.0.5", "5900", "-p", "x"}, "10.0.0.5", "5900", "qv-demo", "x", false},
        {{"10.0.0.5", "5900", "6000", "-p", "x"}, "10.0.0.5", "6000", "qv-demo", "x", false},
        {{"a", "-p", "1", "b", "-p", "2"}, "a", "b", "qv-demo", "2", false},
        // No port is taken out of a direct host.
        {{"10.0.0.5:5900"}, "10.0.0.5:5900", "7777", "qv-demo", "", false},
        // A value may look like an option.
        {{"h", "-p", "-r"}, "h", "7777", "qv-demo", "-r", false},
        // Options are matched exactly.
        {{"-px", "--r", "-P"}, "-px", "-P", "qv-demo", "", false},
        // "-r" and "-p" without a value.
        {{"-r"}, "-r", "7777", "qv-demo", "", false},
        {{"h", "-r"}, "h", "-r", "qv-demo", "", false},
        {{"h", "-p"}, "h", "-p", "qv-demo", "", false},
        {{"h", "5900", "-p"}, "h", "-p", "qv-demo", "", false},

        // Through the relay; its own port stands behind ':'.
        {{"-r", "123456789", "-p", "x"}, QV_RELAY_HOST, "7000", "123456789", "x", true},
        {{"-r", "123456789", "10.0.0.9:7100", "-p", "x"},
         "10.0.0.9",
         "7100",
         "123456789",
         "x",
         true},
        {{"-r", "123456789", "10.0.0.9", "7100", "-p", "x"},
         "10.0.0.9",
         "7000",
         "123456789",
         "x",
         true},
        {{"10.0.0.9:7100", "-r", "1"}, "10.0.0.9", "7100", "1", "", true},
        {{"-r", "1", "a:b:c"}, "a:b", "c", "1", "", true},
        {{"-r", "1", "a:"}, "a", "", "1", "", true},
        {{"-r", "1", "-r", "2"}, QV_RELAY_HOST, "7000", "2", "", true},
        {{"-r", "1", "-p"}, QV_RELAY_HOST, "7000", "1", "", true},
        {{"-r", "1", "-r"}, "-r", "7000", "1", "", true},
        // An ID is cut to 18 characters.
        {{"-r", "1234567890123456789"}, QV_RELAY_HOST, "7000", "123456789012345678", "", true},
    };
    for (const auto &row : rows) {
        int count = 0;
        while (count < ARGUMENTS_MAX && row.arguments[count])
            count++;
        CAPTURE(row.arguments[0]);
        CAPTURE(row.arguments[1]);
        session_recorded = {};
        CHECK(run(count, row.arguments) == 0);
        REQUIRE(session_recorded.runs == 1);
        CHECK(strcmp(session_recorded.host, row.host) == 0);
        CHECK(strcmp(session_recorded.port, row.port) == 0);
        CHECK(strcmp(session_recorded.host_id, row.host_id) == 0);
        CHECK(strcmp(session_recorded.password, row.password) == 0);
        CHECK(session_recorded.via_relay == row.via_relay);
        CHECK(session_recorded.error_text == nullptr);
        CHECK(session_recorded.error_size == 0);
    }
}

TEST_CASE("a relay address is cut to 127 characters before it is taken apart")
{
    // 126 letters, ':' and a port that no longer fits.
    char address[140];
    memset(address, 'a', 126);
    snprintf(address + 126, sizeof address - 126, ":7100");
    const char *arguments[] = {"-r", "1", address};
    session_recorded = {};
    CHECK(run(3, arguments) == 0);
    CHECK(strlen(session_recorded.host) == 126);
    CHECK(strcmp(session_recorded.port, "") == 0);

    // 127 letters: the ':' is cut off too, and the port is the default.
    memset(address, 'a', 127);
    snprintf(address + 127, sizeof address - 127, ":7100");
    CHECK(run(3, arguments) == 0);
    CHECK(strlen(session_recorded.host) == 127);
    CHECK(strcmp(session_recorded.port, "7000") == 0);
}

TEST_CASE("the session's result is the exit status")
{
    const char *arguments[] = {"h"};
    session_recorded = {};
    session_recorded.result = 1;
    CHECK(run(1, arguments) == 1);
    CHECK(session_recorded.runs == 1);
}

// Runs qv_client with standard output going to a file and reads what is there when it
// returns: only what was flushed. Line ends as the program wrote them.
static int run_captured(int count, const char *const *arguments, char *text, size_t size,
                        const char *relay_file = nullptr)
{
    FILE *file = tmpfile();
    REQUIRE(file);
    fflush(stdout);
    int kept = dup(fileno(stdout));
    dup2(fileno(file), fileno(stdout));
    int result = run(count, arguments, relay_file);
    dup2(kept, fileno(stdout));
    close(kept);
    rewind(file);
    size_t n = fread(text, 1, size - 1, file);
    fclose(file);
    size_t out = 0;
    for (size_t i = 0; i < n; i++)
        if (text[i] != '\r')
            text[out++] = text[i];
    text[out] = 0;
    return result;
}

TEST_CASE("without a host the usage is printed at once and nothing is connected")
{
    static const char *const command_lines[][2] = {
        {nullptr, nullptr},
        {"-p", "x"},
        {"-p", nullptr},
    };
    for (const auto &arguments : command_lines) {
        int count = (arguments[0] != nullptr) + (arguments[1] != nullptr);
        CAPTURE(count);
        session_recorded = {};
        char text[1024];
        CHECK(run_captured(count, arguments, text, sizeof text) == 1);
        CHECK(session_recorded.runs == 0);
        CHECK(strcmp(text, "usage: qv_client <host> [port] -p <password>          direct\n"
                           "       qv_client -r <ID> [relayhost[:port]] -p <password>   via "
                           "relay (default " QV_RELAY_HOST ":7000)\n") == 0);
    }
}

TEST_CASE("a command line without even a program's name prints the usage")
{
    char *argv[] = {nullptr};
    viewer_arguments arguments;
    viewer_parse_arguments(0, argv, &arguments);
    CHECK(arguments.usage);
}

// Last in the file: the relay stays what the file said until the process ends.
TEST_CASE("an administrator's relay.txt replaces the default relay and nothing else")
{
    const char *given[] = {"-r", "1", "other:7100"};
    session_recorded = {};
    CHECK(run(3, given, "relay.example.com\r\n") == 0);
    CHECK(strcmp(session_recorded.host, "other") == 0);
    CHECK(strcmp(session_recorded.port, "7100") == 0);

    const char *not_given[] = {"-r", "1"};
    CHECK(run(2, not_given, "relay.example.com\r\n") == 0);
    CHECK(strcmp(session_recorded.host, "relay.example.com") == 0);
    CHECK(strcmp(session_recorded.port, "7000") == 0);

    char text[1024];
    CHECK(run_captured(0, nullptr, text, sizeof text, "192.0.2.7") == 1);
    CHECK(strstr(text, "   via relay (default 192.0.2.7:7000)\n") != nullptr);
}
