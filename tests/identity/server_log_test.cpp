#include "identity/server_log.h"

#include "tests/identity/temp_data_dir.h"
#include "tests/test.h"

#ifndef _WIN32
#include <signal.h>
#include <sys/resource.h>
#endif

// The log stays open for the life of the process, so all cases write into the first one's
// directory, and each looks at what it added.
static temp_data_dir &log_dir()
{
    static temp_data_dir dir;
    set_environment("PROGRAMDATA", dir.program_data.c_str());
    return dir;
}

static std::string log_bytes()
{
    return log_dir().read("qv_server.log");
}

// First in the file: it needs a process whose log is not open yet.
TEST_CASE("lines before the log is open are lost, and a log that cannot be opened is silent")
{
    const temp_data_dir &dir = log_dir();
    dir.write("qv_server.log", "the last run's lines");
    server_log("nowhere %d", 1);
    CHECK(log_bytes() == "the last run's lines");

    dir.make_unreachable();
    server_log_open();
    server_log("nowhere %d", 2);

    log_dir(); // back to the reachable directory
    std::filesystem::remove(dir.path("qv_server.log"));
    std::filesystem::create_directory(dir.path("qv_server.log")); // in the file's way
    server_log_open();
    server_log("nowhere %d", 3);
    std::filesystem::remove(dir.path("qv_server.log"));

    dir.write("qv_server.log", "the last run's lines");
    server_log_open();
    CHECK(log_bytes() == ""); // emptied as it is opened
    server_log("here %d", 4);
    CHECK(log_bytes() == std::string("here 4") + TEXT_LINE_END);
}

TEST_CASE("each line is in the file when the call returns")
{
    log_dir();
    server_log_open();
    const size_t before = log_bytes().size();
    server_log("viewer %s, %d of %llu, %08lx", "ada", -5, 1234567890123ull, 0x887a0026ul);
    CHECK(log_bytes().substr(before) ==
          std::string("viewer ada, -5 of 1234567890123, 887a0026") + TEXT_LINE_END);
    server_log("100%%");
    CHECK(log_bytes().substr(before) ==
          std::string("viewer ada, -5 of 1234567890123, 887a0026") + TEXT_LINE_END + "100%" +
              TEXT_LINE_END);
}

TEST_CASE("a format that ends in a newline produces an empty line after it")
{
    log_dir();
    server_log_open();
    const size_t before = log_bytes().size();
    server_log("twice\n");
    CHECK(log_bytes().substr(before) == std::string("twice") + TEXT_LINE_END + TEXT_LINE_END);
}

TEST_CASE("opening again keeps the stream and empties nothing")
{
    log_dir();
    server_log_open();
    server_log("first");
    const std::string before = log_bytes();
    server_log_open();
    CHECK(log_bytes() == before);

    temp_data_dir other; // PROGRAMDATA now points here; the stream stays where it was
    server_log_open();
    server_log("second");
    CHECK(!std::filesystem::exists(other.path("qv_server.log")));
    CHECK(std::filesystem::is_directory(other.directory())); // made before it is looked at
    CHECK(log_bytes() == before + "second" + TEXT_LINE_END);
}

TEST_CASE("the path is formatted into the caller's buffer")
{
    const temp_data_dir &dir = log_dir();
    const std::string whole = dir.path("qv_server.log");
    char path[SERVER_LOG_PATH_SIZE];
    CHECK(server_log_path(path, sizeof path) == (int32_t)whole.size());
    CHECK(path == whole);

    char cut[6] = "?????";
    CHECK(server_log_path(cut, 5) == (int32_t)whole.size());
    CHECK(std::string(cut) == whole.substr(0, 4));

    char none = '?';
    CHECK(server_log_path(&none, 0) == (int32_t)whole.size());
    CHECK(server_log_path(&none, -1) == (int32_t)whole.size());
    CHECK(none == '?');
}

TEST_CASE("asking for the path makes the directory")
{
    temp_data_dir temp;
    char path[SERVER_LOG_PATH_SIZE];
    server_log_path(path, sizeof path);
    CHECK(std::filesystem::is_directory(temp.directory()));
}

#ifndef _WIN32
TEST_CASE("a write error is ignored and later lines are written")
{
    log_dir();
    server_log_open();
    server_log("before");

    // A file that may not grow stands for a full disk.
    signal(SIGXFSZ, SIG_IGN);
    rlimit old;
    REQUIRE(getrlimit(RLIMIT_FSIZE, &old) == 0);
    rlimit full = old;
    full.rlim_cur = log_bytes().size();
    REQUIRE(setrlimit(RLIMIT_FSIZE, &full) == 0);
    const size_t size = log_bytes().size();
    server_log("lost");
    const size_t after = log_bytes().size();
    REQUIRE(setrlimit(RLIMIT_FSIZE, &old) == 0);
    CHECK(after == size);

    server_log("after");
    const std::string bytes = log_bytes();
    REQUIRE(bytes.size() >= 6);
    CHECK(bytes.substr(bytes.size() - 6) == "after\n");
}
#endif
