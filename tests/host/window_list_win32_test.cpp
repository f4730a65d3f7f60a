// The window list as Windows gives it, with windows of this program's own.
//
// Windows only
// Fakes: host_switches
#include "protocol/win32.h"

#include "host/out_buffer.h"
#include "host/window_list.h"
#include "protocol/bytes.h"
#include "tests/fakes/host_switches.h"
#include "tests/test.h"

#include <initializer_list>
#include <map>
#include <string>

using namespace host;

static HWND open_window(const char *title, DWORD style)
{
    return CreateWindowA("STATIC", title, WS_POPUP | style, 10, 20, 300, 200, nullptr, nullptr,
                         GetModuleHandleA(nullptr), nullptr);
}

// Where the record of each listed window starts, by its handle.
static std::map<uint32_t, const uint8_t *> list_windows()
{
    out_reset();
    window_list_reset();
    window_list_step();
    REQUIRE(out_used() >= 10);
    std::map<uint32_t, const uint8_t *> found;
    const uint8_t *p = out_bytes() + 10;
    for (uint16_t left = load_le16(out_bytes() + 8); left > 0; left--) {
        found[load_le32(p)] = p;
        p += 22 + p[21];
    }
    REQUIRE(p == out_bytes() + out_used());
    return found;
}

static uint32_t low(HWND window)
{
    return (uint32_t)(uintptr_t)window;
}

TEST_CASE("visible windows with a title are listed, with place, title and state")
{
    host_switch_window_list = 1;
    HWND plain = open_window("a plain window", WS_VISIBLE);
    HWND hidden = open_window("a hidden window", 0);
    HWND nameless = open_window("", WS_VISIBLE);
    HWND small = open_window("a minimised window", WS_VISIBLE | WS_MINIMIZE);
    HWND front = open_window(std::string(300, 'f').c_str(), WS_VISIBLE);
    REQUIRE((plain && hidden && nameless && small && front));
    SetForegroundWindow(front);

    auto found = list_windows();
    REQUIRE(found.count(low(plain)) == 1);
    CHECK(found.count(low(hidden)) == 0);
    CHECK(found.count(low(nameless)) == 0);
    REQUIRE(found.count(low(small)) == 1);
    REQUIRE(found.count(low(front)) == 1);

    const uint8_t *p = found[low(plain)];
    CHECK(load_le32(p + 4) == 10);
    CHECK(load_le32(p + 8) == 20);
    CHECK(load_le32(p + 12) == 300);
    CHECK(load_le32(p + 16) == 200);
    CHECK(p[20] == 0);
    CHECK(std::string((const char *)p + 22, p[21]) == "a plain window");
    CHECK((found[low(small)][20] & WINDOW_MINIMISED) != 0);
    CHECK((found[low(front)][20] & WINDOW_MINIMISED) == 0);
    REQUIRE(GetForegroundWindow() == front);
    CHECK((found[low(front)][20] & WINDOW_FOREGROUND) != 0);
    CHECK(found[low(front)][21] == 199);

    SetWindowPos(plain, HWND_TOP, 15, 26, 400, 100, SWP_NOACTIVATE);
    found = list_windows();
    CHECK(load_le32(found[low(plain)] + 4) == 15);
    CHECK(load_le32(found[low(plain)] + 8) == 26);
    CHECK(load_le32(found[low(plain)] + 12) == 400);
    CHECK(load_le32(found[low(plain)] + 16) == 100);
    DestroyWindow(plain);
    CHECK(list_windows().count(low(plain)) == 0);
    for (HWND window : {hidden, nameless, small, front})
        DestroyWindow(window);
}

TEST_CASE("the windows come in their order, topmost first")
{
    host_switch_window_list = 1;
    HWND first = open_window("one", WS_VISIBLE);
    HWND second = open_window("two", WS_VISIBLE);
    for (HWND top : {first, second, first}) {
        SetWindowPos(top, HWND_TOP, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_NOACTIVATE);
        auto found = list_windows();
        REQUIRE(found.count(low(first)) == 1);
        REQUIRE(found.count(low(second)) == 1);
        CHECK((found[low(first)] < found[low(second)]) == (top == first));
    }
    DestroyWindow(first);
    DestroyWindow(second);
}
