// Copies of the screen by GDI, into a bitmap whose bits the program reads in place.
#include "host/capture_gdi.h"

#include "protocol/win32.h"

namespace host
{

// Owner: host server thread. Zeroed = nothing open.
static struct {
    HDC memory;       // compatible with the screen, bitmap selected
    HBITMAP bitmap;   // DIB section, top row first
    HGDIOBJ replaced; // what the memory context held before; it goes back ahead of release
    uint8_t *bits;    // the bitmap's pixels; the bitmap owns them
    int64_t copy_end; // performance counter when the last copy ended; 0 before the first
} gdi;

static void gdi_close()
{
    if (gdi.replaced)
        SelectObject(gdi.memory, gdi.replaced);
    if (gdi.bitmap)
        DeleteObject(gdi.bitmap);
    if (gdi.memory)
        DeleteDC(gdi.memory);
    gdi.replaced = nullptr;
    gdi.bitmap = nullptr;
    gdi.memory = nullptr;
    gdi.bits = nullptr;
}

void gdi_screen_size(int32_t *width, int32_t *height)
{
    *width = GetSystemMetrics(SM_CXSCREEN);
    *height = GetSystemMetrics(SM_CYSCREEN);
}

static bool create_bitmap(HDC desktop, int32_t padded_width, int32_t height)
{
    BITMAPINFO info = {};
    info.bmiHeader.biSize = sizeof info.bmiHeader;
    info.bmiHeader.biWidth = padded_width;
    info.bmiHeader.biHeight = -height; // top row first
    info.bmiHeader.biPlanes = 1;
    info.bmiHeader.biBitCount = 32;
    info.bmiHeader.biCompression = BI_RGB;
    void *bits = nullptr;
    gdi.memory = CreateCompatibleDC(desktop);
    if (!gdi.memory)
        return false;
    gdi.bitmap = CreateDIBSection(desktop, &info, DIB_RGB_COLORS, &bits, nullptr, 0);
    if (!gdi.bitmap || !bits)
        return false;
    gdi.replaced = SelectObject(gdi.memory, gdi.bitmap);
    if (!gdi.replaced)
        return false;
    gdi.bits = (uint8_t *)bits;
    return true;
}

bool gdi_open(int32_t padded_width, int32_t height)
{
    gdi_close();
    HDC desktop = GetDC(nullptr);
    if (!desktop)
        return false;
    bool created = create_bitmap(desktop, padded_width, height);
    ReleaseDC(nullptr, desktop);
    if (!created)
        gdi_close();
    return created;
}

static int64_t counter_now()
{
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    return now.QuadPart;
}

// The performance counter and not the tick count, whose steps are as long as the pause.
void gdi_pause()
{
    LARGE_INTEGER frequency;
    QueryPerformanceFrequency(&frequency);
    int64_t turn = gdi.copy_end + frequency.QuadPart * GDI_PAUSE_MS / 1000;
    while (gdi.copy_end != 0) {
        int64_t left = turn - counter_now();
        if (left <= 0)
            break;
        Sleep((DWORD)(left * 1000 / frequency.QuadPart) + 1);
    }
}

const uint8_t *gdi_copy(int32_t width, int32_t height)
{
    BOOL copied = FALSE;
    HDC desktop = GetDC(nullptr);
    if (desktop && gdi.bits)
        copied = BitBlt(gdi.memory, 0, 0, width, height, desktop, 0, 0, SRCCOPY | CAPTUREBLT);
    if (desktop)
        ReleaseDC(nullptr, desktop);
    GdiFlush(); // drawing is queued, and the bits are read without GDI knowing
    gdi.copy_end = counter_now();
    return copied ? gdi.bits : nullptr;
}

} // namespace host
