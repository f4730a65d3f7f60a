// A window to be looked at and to be worked with.
//
//   probe_window TITLE X Y WIDTH HEIGHT LOGFILE
//
// It paints numbered pictures: WM_APP with 1 starts the animation, with 0 stops it. Each
// picture differs from the one before in ways that a screen really changes: noise, a
// scrolling pattern, moving boxes, text. The number stands in the top left corner as 16
// squares of 8 x 8 pixels, highest bit first, white for 1.
//
// Every mouse and key message is one line of the log file, with screen coordinates:
//   move X Y | down BUTTON X Y | up BUTTON X Y | wheel DELTA X Y | key down VK | key up VK
// where system keys count as keys.

#include "protocol/win32.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

namespace
{

constexpr UINT APP_ANIMATE = WM_APP;
constexpr UINT_PTR ANIMATION_TIMER = 1;
constexpr UINT ANIMATION_MS = 30;
constexpr int NUMBER_BITS = 16;
constexpr int BIT_SIZE = 8;
constexpr int NOISE_SIZE = 160;
constexpr int SCROLL_SIZE = 200;

FILE *log_file;
uint32_t picture;
int width, height;

void draw_box(HDC dc, int left, int top, int right, int bottom, COLORREF colour)
{
    const RECT box = {left, top, right, bottom};
    HBRUSH brush = CreateSolidBrush(colour);
    FillRect(dc, &box, brush);
    DeleteObject(brush);
}

// Pixels that no two pictures share: what a tile coder can only send raw.
void draw_noise(HDC dc, int left, int top)
{
    static uint32_t pixels[NOISE_SIZE * NOISE_SIZE];
    uint32_t state = picture * 2654435761u + 1;
    for (uint32_t &pixel : pixels) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        pixel = state & 0xFFFFFF;
    }
    BITMAPINFO info = {};
    info.bmiHeader.biSize = sizeof info.bmiHeader;
    info.bmiHeader.biWidth = NOISE_SIZE;
    info.bmiHeader.biHeight = -NOISE_SIZE;
    info.bmiHeader.biPlanes = 1;
    info.bmiHeader.biBitCount = 32;
    SetDIBitsToDevice(dc, left, top, NOISE_SIZE, NOISE_SIZE, 0, 0, 0, NOISE_SIZE, pixels, &info,
                      DIB_RGB_COLORS);
}

// Lines that wander upwards, like a document that is scrolled.
void draw_scroll(HDC dc, int left, int top)
{
    draw_box(dc, left, top, left + SCROLL_SIZE, top + SCROLL_SIZE, RGB(255, 255, 250));
    const int step = 16;
    for (int line = 0; line < SCROLL_SIZE / step; line++) {
        char text[64];
        snprintf(text, sizeof text, "line %u of a document",
                 (unsigned)picture + (unsigned)line);
        TextOutA(dc, left + 4, top + line * step, text, lstrlenA(text));
    }
}

void draw_picture(HDC dc)
{
    const int n = (int)picture;
    draw_box(dc, 0, 0, width, height, RGB(40, 60, 90));
    for (int bit = 0; bit < NUMBER_BITS; bit++) {
        const bool set = picture >> (NUMBER_BITS - 1 - bit) & 1;
        draw_box(dc, bit * BIT_SIZE, 0, (bit + 1) * BIT_SIZE, BIT_SIZE,
                 set ? RGB(255, 255, 255) : RGB(0, 0, 0));
    }
    draw_noise(dc, 10, 20);
    draw_scroll(dc, 20 + NOISE_SIZE, 20);
    for (int box = 0; box < 3; box++) {
        const int x = (n * (3 + box * 4) + box * 70) % (width > 60 ? width - 60 : 1);
        const int y = height - 30 * (box + 1);
        draw_box(dc, x, y, x + 60, y + 24, RGB(200, 80 * box, 255 - 100 * box));
    }
}

void paint(HWND window)
{
    PAINTSTRUCT ps;
    HDC dc = BeginPaint(window, &ps);
    // One blit, so that no reader of the screen meets a half-drawn picture.
    HDC memory = CreateCompatibleDC(dc);
    HBITMAP bitmap = CreateCompatibleBitmap(dc, width, height);
    HGDIOBJ old = SelectObject(memory, bitmap);
    draw_picture(memory);
    BitBlt(dc, 0, 0, width, height, memory, 0, 0, SRCCOPY);
    SelectObject(memory, old);
    DeleteObject(bitmap);
    DeleteDC(memory);
    EndPaint(window, &ps);
}

void log_at(HWND window, const char *what, LPARAM where)
{
    POINT at = {(int16_t)LOWORD(where), (int16_t)HIWORD(where)};
    ClientToScreen(window, &at);
    fprintf(log_file, "%s %ld %ld\n", what, at.x, at.y);
}

LRESULT CALLBACK window_proc(HWND window, UINT message, WPARAM wparam, LPARAM lparam)
{
    switch (message) {
    case WM_PAINT:
        paint(window);
        return 0;
    case WM_SIZE:
        width = LOWORD(lparam);
        height = HIWORD(lparam);
        return 0;
    case WM_ERASEBKGND:
        return 1;
    case APP_ANIMATE:
        if (wparam)
            SetTimer(window, ANIMATION_TIMER, ANIMATION_MS, nullptr);
        else
            KillTimer(window, ANIMATION_TIMER);
        return 0;
    case WM_TIMER:
        picture++;
        InvalidateRect(window, nullptr, FALSE);
        return 0;
    case WM_DESTROY:
        PostQuitMessage(0);
        return 0;
    case WM_MOUSEMOVE:
        log_at(window, "move", lparam);
        break;
    case WM_LBUTTONDOWN:
        log_at(window, "down left", lparam);
        break;
    case WM_LBUTTONUP:
        log_at(window, "up left", lparam);
        break;
    case WM_RBUTTONDOWN:
        log_at(window, "down right", lparam);
        break;
    case WM_RBUTTONUP:
        log_at(window, "up right", lparam);
        break;
    case WM_MBUTTONDOWN:
        log_at(window, "down middle", lparam);
        break;
    case WM_MBUTTONUP:
        log_at(window, "up middle", lparam);
        break;
    case WM_MOUSEWHEEL: // has screen coordinates already
        fprintf(log_file, "wheel %d %d %d\n", (int16_t)HIWORD(wparam), (int16_t)LOWORD(lparam),
                (int16_t)HIWORD(lparam));
        break;
    case WM_KEYDOWN:
    case WM_SYSKEYDOWN:
        fprintf(log_file, "key down %u\n", (unsigned)wparam);
        break;
    case WM_KEYUP:
    case WM_SYSKEYUP:
        fprintf(log_file, "key up %u\n", (unsigned)wparam);
        break;
    default:
        return DefWindowProcA(window, message, wparam, lparam);
    }
    fflush(log_file);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 7) {
        fprintf(stderr, "usage: probe_window TITLE X Y WIDTH HEIGHT LOGFILE\n");
        return 1;
    }
    log_file = fopen(argv[6], "w");
    if (!log_file) {
        fprintf(stderr, "cannot write %s\n", argv[6]);
        return 1;
    }
    WNDCLASSA window_class = {};
    window_class.lpfnWndProc = window_proc;
    window_class.hInstance = GetModuleHandleA(nullptr);
    window_class.hCursor = LoadCursor(nullptr, IDC_ARROW);
    window_class.lpszClassName = "qvprobe";
    RegisterClassA(&window_class);
    // No frame: the client area is exactly where the arguments say.
    HWND window = CreateWindowExA(0, "qvprobe", argv[1], WS_POPUP | WS_VISIBLE, atoi(argv[2]),
                                  atoi(argv[3]), atoi(argv[4]), atoi(argv[5]), nullptr, nullptr,
                                  window_class.hInstance, nullptr);
    if (!window)
        return 1;
    SetForegroundWindow(window);
    MSG message;
    while (GetMessageA(&message, nullptr, 0, 0) > 0) {
        TranslateMessage(&message);
        DispatchMessageA(&message);
    }
    return 0;
}
