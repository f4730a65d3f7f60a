// The window list with scripted windows.
//
// Fakes: window_list_script host_switches
#include "host/window_list.h"
#include "host/out_buffer.h"
#include "tests/fakes/host_switches.h"
#include "tests/fakes/window_list_script.h"
#include "tests/host/viewer_model.h"
#include "tests/test.h"

#include <string>
#include <vector>

using namespace host;
using bytes = std::vector<uint8_t>;

static void start(std::vector<scripted_window> windows)
{
    host_switch_window_list = 1;
    windows_now = std::move(windows);
    windows_asked = 0;
    out_reset();
    window_list_reset();
}

static std::vector<model_message> step()
{
    out_reset();
    window_list_step();
    REQUIRE(out_intact());
    if (out_used() == 0)
        return {};
    return model_split(bytes(out_bytes(), out_bytes() + out_used()));
}

// One iteration that appends a list; its payload.
static bytes step_to_list()
{
    std::vector<model_message> messages = step();
    REQUIRE(messages.size() == 1);
    REQUIRE(messages[0].type == 6);
    return messages[0].payload;
}

TEST_CASE("the hash is FNV-1a of 32 bits")
{
    // Published with the algorithm.
    static const struct {
        const char *text;
        uint32_t hash;
    } rows[] = {{"", 0x811C9DC5}, {"a", 0xE40C292C}, {"foobar", 0xBF9CF968}};
    for (const auto &row : rows)
        CHECK(fnv1a((const uint8_t *)row.text, strlen(row.text)) == row.hash);
}

TEST_CASE("the list has a count and the windows in their order")
{
    start({{{0x01020304, -8, 16, 300, 200, WINDOW_FOREGROUND}, "ab"},
           {{5, 0, 0, 1, 2, WINDOW_MINIMISED}, "c"}});
    const bytes expected = {
        2,   0,                                                         // two windows
        4,   3, 2, 1, 0xF8, 0xFF, 0xFF, 0xFF, 16, 0, 0, 0, 44, 1, 0, 0, // 300 wide
        200, 0, 0, 0, 1,    2,    'a',  'b',                            //
        5,   0, 0, 0, 0,    0,    0,    0,    0,  0, 0, 0, 1,  0, 0, 0, //
        2,   0, 0, 0, 2,    1,    'c'};
    CHECK(step_to_list() == expected);
}

TEST_CASE("a list goes again when anything of it changed, and only then")
{
    const std::vector<scripted_window> before = {{{1, 2, 3, 4, 5, 1}, "one"},
                                                 {{6, 7, 8, 9, 10, 0}, "two"}};
    void (*const changes[])() = {
        [] { windows_now[0].head.handle++; },
        [] { windows_now[0].head.x--; },
        [] { windows_now[1].head.y++; },
        [] { windows_now[1].head.width++; },
        [] { windows_now[0].head.height++; },
        [] { windows_now[1].head.flags = 2; },
        [] { windows_now[1].title = "twO"; },
        [] { windows_now[1].title = "twoo"; },
        [] { std::swap(windows_now[0], windows_now[1]); },
        [] { windows_now.pop_back(); },
        [] { windows_now.clear(); },
    };
    for (const auto change : changes) {
        start(before);
        bytes first = step_to_list();
        CHECK(step().empty());
        change();
        CHECK(step_to_list() != first);
        CHECK(step().empty());
        windows_now = before;
        CHECK(step_to_list() == first);
    }
}

TEST_CASE("without any window one empty list is sent, in every session")
{
    start({});
    CHECK(step_to_list() == bytes{0, 0});
    CHECK(step().empty());
    window_list_reset();
    CHECK(step_to_list() == bytes{0, 0});
    windows_now = {{{1, 2, 3, 4, 5, 1}, "one"}};
    CHECK(step_to_list().size() == 2 + 22 + 3);
    windows_now.clear();
    CHECK(step_to_list() == bytes{0, 0});
}

TEST_CASE("a window without a title is never listed")
{
    start({{{1, 2, 3, 4, 5, 1}, ""}, {{6, 7, 8, 9, 10, 0}, "x"}});
    bytes list = step_to_list();
    REQUIRE(list.size() == 2 + 22 + 1);
    CHECK(list[0] == 1);
    CHECK(list[2] == 6);
    windows_now.erase(windows_now.begin());
    CHECK(step().empty());
}

TEST_CASE("a list ends with the last window that fits 16384 bytes")
{
    // 74 windows of 22 + 199 bytes are 16354; what is left is for one with 8 bytes of title.
    static const struct {
        size_t title; // of the 75th
        size_t listed;
    } rows[] = {{8, 75}, {9, 74}, {199, 74}};
    for (const auto &row : rows) {
        CAPTURE(row.title);
        std::vector<scripted_window> windows(74, {{1, 2, 3, 4, 5, 0}, std::string(199, 't')});
        windows.push_back({{2, 2, 3, 4, 5, 0}, std::string(row.title, 'l')});
        start(windows);
        windows_now.push_back({{3, 2, 3, 4, 5, 0}, "x"}); // would never fit
        windows_now.push_back({{4, 2, 3, 4, 5, 0}, "y"});
        bytes list = step_to_list();
        CHECK(list[0] == row.listed);
        CHECK(list[1] == 0);
        CHECK(list.size() == 2 + 74 * 221 + (row.listed == 75 ? 30 : 0));
        CHECK(windows_asked == (int32_t)row.listed + 1); // none is asked after that
    }
}

TEST_CASE("more than 255 windows are counted")
{
    start(std::vector<scripted_window>(300, {{1, 2, 3, 4, 5, 0}, "w"}));
    bytes list = step_to_list();
    CHECK(list.size() == 2 + 300 * 23);
    CHECK(list[0] == 44); // 300 less 256
    CHECK(list[1] == 1);
}

TEST_CASE("a long title is cut to 199 bytes")
{
    start({{{1, 2, 3, 4, 5, 0}, std::string(300, 'z')}});
    bytes list = step_to_list();
    CHECK(list.size() == 2 + 22 + 199);
    CHECK(list[2 + 21] == 199);
}

TEST_CASE("a host that is not to list its windows does not even ask")
{
    start({{{1, 2, 3, 4, 5, 1}, "one"}});
    host_switch_window_list = 0;
    windows_listings = 0;
    CHECK(step().empty());
    CHECK(windows_listings == 0);
    host_switch_window_list = 1;
    CHECK(step_to_list()[0] == 1);
}
