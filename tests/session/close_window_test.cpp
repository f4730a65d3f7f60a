// Windows only
// Locks: ports
// Fakes: identity_script server_log_record desktop input_record cache_disk_memory
//
// The real viewer window on a session with the real server, closed at any moment under a
// stream of 60 frames a second. QV_REPEAT=n does it n times as often (10 is the long form:
// 200 windows).
#include "host/host_server.h"
#include "identity/host_identity.h"
#include "protocol/clock.h"
#include "protocol/net.h"
#include "protocol/win32.h"
#include "tests/fakes/desktop.h"
#include "tests/fakes/identity_script.h"
#include "tests/fakes/server_log_record.h"
#include "tests/test.h"
#include "viewer/frame_decode.h"
#include "viewer/viewer_session.h"

#include <atomic>
#include <thread>

// Other test programs show viewer windows too, perhaps on the same desktop.
static HWND find_own_window()
{
    HWND found = nullptr;
    while ((found = FindWindowExA(nullptr, found, "qvviewer", nullptr)) != nullptr) {
        DWORD owner = 0;
        GetWindowThreadProcessId(found, &owner);
        if (owner == GetCurrentProcessId())
            break;
    }
    return found;
}

// The user: sees the picture for a moment, moves the mouse over it and closes the window.
// False when no window comes.
static bool use_window(uint32_t ms)
{
    HWND window = nullptr;
    for (int i = 0; i < 30000 && !window; i++) {
        clock_sleep_ms(1);
        window = find_own_window();
    }
    for (uint32_t i = 0; i < ms; i++) {
        PostMessageA(window, WM_MOUSEMOVE, 0, MAKELPARAM(i, i));
        clock_sleep_ms(1);
    }
    return window && PostMessageA(window, WM_CLOSE, 0, 0);
}

static DWORD handles_now()
{
    DWORD handles = 0;
    GetProcessHandleCount(GetCurrentProcess(), &handles);
    return handles;
}

TEST_CASE("the window closes at any moment of a stream at 60 frames a second")
{
    test_random random = test_random_seeded("windows");
    const char *given = getenv("QV_REPEAT");
    int rounds = 3 + 20 * (given && atoi(given) > 0 ? atoi(given) : 1);
    net_start();
    identity_script_reset(0);
    desktop_reset(640, 480, false);
    std::thread server([] { CHECK(host::host_server_run() == 0); });
    std::atomic<bool> over = false;
    std::thread screen([&] {
        for (uint8_t colour = 1; !over; colour++) {
            desktop_paint(colour);
            clock_sleep_ms(16);
        }
    });
    for (int i = 0; i < 30000 && identity_script_states().empty(); i++)
        clock_sleep_ms(1);

    uint32_t frames = 0;
    DWORD before = 0;
    for (int round = 0; round < rounds; round++) {
        if (round == 3)
            before = handles_now();
        bool used = false;
        std::thread user([&used, ms = (uint32_t)random.below(50)] { used = use_window(ms); });
        int result =
            viewer::viewer_session_run("127.0.0.1", "7777", false, "", "secret", nullptr, 0);
        user.join();
        REQUIRE(result == 0);
        REQUIRE(used);
        CHECK(find_own_window() == nullptr);
        frames += viewer::statistics.stat_frames;
    }
    CHECK(frames > 0);

    // The host may be behind with its end of the last session.
    DWORD after = handles_now();
    for (int i = 0; i < 10000 && after > before; i++) {
        clock_sleep_ms(1);
        after = handles_now();
    }
    CHECK(after <= before);

    host::host_stop();
    net_socket last = NET_INVALID; // a server that waits in accept ends with the next
    if (net_connect("127.0.0.1", "7777", false, &last) == NET_CONNECTED)
        net_close(last);
    server.join();
    over = true;
    screen.join();
}
