// Windows only
// Fakes: server_log_record
//
// The real edges of screen capture on whatever desktop there is, with or without a display.
#include "host/capture.h"
#include "host/capture_dxgi.h"
#include "host/capture_gdi.h"
#include "host/dxgi_device.h"
#include "host/screen.h"
#include "protocol/win32.h"
#include "tests/fakes/server_log_record.h"
#include "tests/test.h"

#include <chrono>
#include <string.h>

using namespace host;

using lines = std::vector<std::string>;

// Whether the screen can be copied here; without a display it cannot.
static bool screen_can_be_copied()
{
    HDC desktop = GetDC(nullptr);
    HDC memory = CreateCompatibleDC(desktop);
    HBITMAP bitmap = CreateCompatibleBitmap(desktop, 1, 1);
    HGDIOBJ replaced = SelectObject(memory, bitmap);
    BOOL copied = BitBlt(memory, 0, 0, 1, 1, desktop, 0, 0, SRCCOPY | CAPTUREBLT);
    SelectObject(memory, replaced);
    DeleteObject(bitmap);
    DeleteDC(memory);
    ReleaseDC(nullptr, desktop);
    return copied != FALSE;
}

TEST_CASE("the screen has a size")
{
    int32_t width = 0, height = 0;
    gdi_screen_size(&width, &height);
    CHECK(width == GetSystemMetrics(SM_CXSCREEN));
    CHECK(height == GetSystemMetrics(SM_CYSCREEN));
    CHECK(width > 0);
    CHECK(height > 0);
}

TEST_CASE("GDI copies the screen or says that it cannot")
{
    int32_t width = 0, height = 0;
    gdi_screen_size(&width, &height);
    const uint8_t *bits = gdi_open(pad_to_tile(width), pad_to_tile(height));
    REQUIRE(bits);
    bool copied = gdi_copy(width, height);
    CHECK(copied == screen_can_be_copied());
    // What lies beyond the screen stays as it was made.
    int64_t nonzero = 0;
    int64_t pitch = (int64_t)pad_to_tile(width) * 4;
    for (int64_t y = 0; y < pad_to_tile(height); y++) {
        for (int64_t x = y < height ? (int64_t)width * 4 : 0; x < pitch; x++)
            nonzero += bits[y * pitch + x] != 0;
    }
    CHECK(nonzero == 0);
}

TEST_CASE("a bitmap that cannot be had is refused and nothing is copied")
{
    CHECK_FALSE(gdi_open(SCREEN_SIDE_MAX, SCREEN_SIDE_MAX));
    CHECK_FALSE(gdi_copy(1, 1));
    REQUIRE(gdi_open(64, 64));
}

TEST_CASE("opening again releases the handles of before")
{
    // More than the handles that a process may have, or the system's table holds.
    for (int32_t i = 0; i < 70000; i++)
        REQUIRE(gdi_open(64, 1));
}

TEST_CASE("capture runs on this desktop")
{
    lock_init(&host_lock);
    server_log_clear();
    int duplication = capture_start();
    CHECK((duplication != 0) == capture_is_duplication());
    CHECK(screen.screen_width == GetSystemMetrics(SM_CXSCREEN));
    CHECK(screen.screen_height == GetSystemMetrics(SM_CYSCREEN));
    char size[32];
    snprintf(size, sizeof size, "%dx%d", GetSystemMetrics(SM_CXSCREEN),
             GetSystemMetrics(SM_CYSCREEN));
    REQUIRE_FALSE(server_log_lines().empty());
    CHECK(server_log_lines().back() ==
          (duplication ? "DXGI duplication " : "GDI capture ") + std::string(size));
    if (!duplication) {
        CHECK((capture_step() == CAPTURE_FRAME) == screen_can_be_copied());
        CHECK((capture_step() == CAPTURE_NOTHING) == !screen_can_be_copied());
    }
}

TEST_CASE("a missing duplication is logged with its result code and leaves nothing open")
{
    server_log_clear();
    dxgi_objects objects;
    memset(&objects, 0xAA, sizeof objects);
    bool created = dxgi_device_create(&objects);
    CHECK((objects.device != nullptr) == created);
    CHECK((objects.context != nullptr) == created);
    CHECK((objects.duplication != nullptr) == created);
    if (created) { // a real desktop; the host's own duplication is closed by now
        CHECK(server_log_lines().empty());
        return;
    }
    lines logged = server_log_lines();
    REQUIRE(logged.size() <= 1); // the calls between the two fail silently
    if (logged.size() == 1) {
        unsigned code = 0;
        bool known = sscanf(logged[0].c_str(), "D3D11CreateDevice %8x", &code) == 1 ||
                     sscanf(logged[0].c_str(), "DuplicateOutput %8x", &code) == 1;
        CHECK(known);
        CHECK_FALSE(capture_succeeded(code));
    }

    int32_t width = 0, height = 0;
    CHECK_FALSE(dxgi_open(&width, &height));
    dxgi_close();
    dxgi_close();
}
