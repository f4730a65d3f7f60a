// Copies of the screen by GDI, into a bitmap whose bits are the host's picture of it.
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

static bool create_bitmap(HDC desktop, int32_t padded_width, int32_t padded_height)
{
    BITMAPINFO info = {};
    info.bmiHeader.biSize = sizeof info.bmiHeader;
    info.bmiHeader.biWidth = padded_width;
    info.bmiHeader.biHeight = -padded_height; // top row first
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

uint8_t *gdi_open(int32_t padded_width, int32_t padded_height)
{
    gdi_close();
    HDC desktop = GetDC(nullptr);
    if (!desktop)
        return nullptr;
    bool created = create_bitmap(desktop, padded_width, padded_height);
    ReleaseDC(nullptr, desktop);
    if (!created)
        gdi_close();
    return gdi.bits;
}

bool gdi_copy(int32_t width, int32_t height)
{
    BOOL copied = FALSE;
    HDC desktop = GetDC(nullptr);
    if (desktop && gdi.bits)
        copied = BitBlt(gdi.memory, 0, 0, width, height, desktop, 0, 0, SRCCOPY | CAPTUREBLT);
    if (desktop)
        ReleaseDC(nullptr, desktop);
    GdiFlush(); // drawing is queued, and the bits are read without GDI knowing
    return copied != FALSE;
}

} // namespace host
