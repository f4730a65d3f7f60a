// Desktop Duplication's code on real Direct3D, driven by a double of the duplication itself.
//
// Wine has Direct3D but duplicates no output. So this program takes the place of
// dxgi_device_create: the device is a real one, and the duplication an object of its own that
// hands out real textures. It needs a display with a renderer, which is why it is started
// by capture_test.py and not with the unit tests.
#include "host/capture.h"
#include "host/capture_dxgi.h"
#include "host/dxgi_device.h"
#include "host/screen.h"
#include "identity/server_log.h"
#include "protocol/win32.h"
#include "tests/fakes/clock_script.h"
#include "tests/fakes/server_log_record.h"
#include "tests/test.h"

#include <d3d11.h>
#include <dxgi1_2.h>

#include <string.h>

#include <string>
#include <vector>

using namespace host;

using lines = std::vector<std::string>;

// What one AcquireNextFrame brings.
struct frame_script {
    HRESULT result = S_OK;
    bool presented = true;
    UINT accumulated = 1;
    std::vector<DXGI_OUTDUPL_MOVE_RECT> moves;
    std::vector<RECT> dirty;
    HRESULT moves_result = S_OK, dirty_result = S_OK;
    IUnknown *other_resource = nullptr; // handed out in place of the desktop
};

// The desktop that is duplicated, and the script.
static struct {
    UINT width, height; // of the texture
    std::vector<uint32_t> pixels;
    ID3D11Texture2D *texture;
    std::vector<frame_script> frames;
    HRESULT open_result;
    int32_t duplications; // alive
    UINT mode_width, mode_height;
} desktop;

static ID3D11Device *device;
static ID3D11DeviceContext *context;

// One reference count and no marshalling: what the code under test needs of an object.
struct duplication_double final : IDXGIOutputDuplication {
    ULONG references = 1;
    bool held = false;
    frame_script frame;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void **object) override
    {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override
    {
        return ++references;
    }
    ULONG STDMETHODCALLTYPE Release() override
    {
        ULONG left = --references;
        if (left == 0) {
            CHECK_FALSE(held);
            desktop.duplications--;
            delete this;
        }
        return left;
    }
    HRESULT STDMETHODCALLTYPE SetPrivateData(REFGUID, UINT, const void *) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE SetPrivateDataInterface(REFGUID, const IUnknown *) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetPrivateData(REFGUID, UINT *, void *) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetParent(REFIID, void **parent) override
    {
        *parent = nullptr;
        return E_NOTIMPL;
    }
    void STDMETHODCALLTYPE GetDesc(DXGI_OUTDUPL_DESC *description) override
    {
        *description = {};
        description->ModeDesc.Width = desktop.mode_width;
        description->ModeDesc.Height = desktop.mode_height;
        description->ModeDesc.Format = DXGI_FORMAT_B8G8R8A8_UNORM;
    }
    HRESULT STDMETHODCALLTYPE AcquireNextFrame(UINT timeout_ms, DXGI_OUTDUPL_FRAME_INFO *info,
                                               IDXGIResource **resource) override
    {
        CHECK(timeout_ms == 2);
        if (held)
            return DXGI_ERROR_INVALID_CALL;
        if (desktop.frames.empty())
            return DXGI_ERROR_WAIT_TIMEOUT;
        frame = desktop.frames.front();
        desktop.frames.erase(desktop.frames.begin());
        if (FAILED(frame.result))
            return frame.result;
        *info = {};
        info->LastPresentTime.QuadPart = frame.presented ? 12345 : 0;
        info->AccumulatedFrames = frame.accumulated;
        info->TotalMetadataBufferSize = (UINT)(frame.moves.size() * sizeof frame.moves[0] +
                                               frame.dirty.size() * sizeof frame.dirty[0]);
        IUnknown *given = frame.other_resource ? frame.other_resource : desktop.texture;
        REQUIRE(SUCCEEDED(given->QueryInterface(__uuidof(IDXGIResource), (void **)resource)));
        held = true;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetFrameDirtyRects(UINT size, RECT *rects, UINT *needed) override
    {
        CHECK(held);
        *needed = (UINT)(frame.dirty.size() * sizeof(RECT));
        if (*needed > size)
            return DXGI_ERROR_MORE_DATA;
        if (*needed > 0)
            memcpy(rects, frame.dirty.data(), *needed);
        return frame.dirty_result;
    }
    HRESULT STDMETHODCALLTYPE GetFrameMoveRects(UINT size, DXGI_OUTDUPL_MOVE_RECT *rects,
                                                UINT *needed) override
    {
        CHECK(held);
        *needed = (UINT)(frame.moves.size() * sizeof(DXGI_OUTDUPL_MOVE_RECT));
        if (*needed > size)
            return DXGI_ERROR_MORE_DATA;
        if (*needed > 0)
            memcpy(rects, frame.moves.data(), *needed);
        return frame.moves_result;
    }
    HRESULT STDMETHODCALLTYPE GetFramePointerShape(UINT, void *, UINT *,
                                                   DXGI_OUTDUPL_POINTER_SHAPE_INFO *) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE MapDesktopSurface(DXGI_MAPPED_RECT *) override
    {
        return DXGI_ERROR_UNSUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE UnMapDesktopSurface() override
    {
        return DXGI_ERROR_INVALID_CALL;
    }
    HRESULT STDMETHODCALLTYPE ReleaseFrame() override
    {
        if (!held)
            return DXGI_ERROR_INVALID_CALL;
        held = false;
        return S_OK;
    }
};

bool host::dxgi_device_create(dxgi_objects *objects)
{
    *objects = {};
    if (FAILED(desktop.open_result)) {
        server_log("DuplicateOutput %08lx", (unsigned long)desktop.open_result);
        return false;
    }
    device->AddRef();
    context->AddRef();
    desktop.duplications++;
    *objects = {device, context, new duplication_double};
    return true;
}

// References that others than the caller hold, as far as the object tells.
static ULONG references(IUnknown *object)
{
    object->AddRef();
    return object->Release();
}

static void release_texture()
{
    if (desktop.texture)
        CHECK(desktop.texture->Release() == 0);
    desktop.texture = nullptr;
}

static test_random pixel_random = {0x7654321};

// New random pixels everywhere on a desktop of this size.
static void paint_desktop(UINT width, UINT height)
{
    if (!desktop.texture || width != desktop.width || height != desktop.height) {
        release_texture();
        D3D11_TEXTURE2D_DESC description = {};
        description.Width = width;
        description.Height = height;
        description.MipLevels = 1;
        description.ArraySize = 1;
        description.Format = DXGI_FORMAT_B8G8R8A8_UNORM;
        description.SampleDesc.Count = 1;
        description.Usage = D3D11_USAGE_DEFAULT;
        description.BindFlags = D3D11_BIND_RENDER_TARGET | D3D11_BIND_SHADER_RESOURCE;
        REQUIRE(SUCCEEDED(device->CreateTexture2D(&description, nullptr, &desktop.texture)));
    }
    desktop.width = width;
    desktop.height = height;
    desktop.pixels.resize((size_t)width * height);
    for (uint32_t &pixel : desktop.pixels)
        pixel = (uint32_t)pixel_random.next() | 1; // never 0, as untouched pixels are
    context->UpdateSubresource(desktop.texture, 0, nullptr, desktop.pixels.data(), width * 4,
                               0);
}

static void start_fresh(UINT width, UINT height)
{
    if (!device) {
        HRESULT result =
            D3D11CreateDevice(nullptr, D3D_DRIVER_TYPE_HARDWARE, nullptr, 0, nullptr, 0,
                              D3D11_SDK_VERSION, &device, nullptr, &context);
        REQUIRE(SUCCEEDED(result));
    }
    dxgi_close();
    lock_init(&host_lock);
    screen.hello_width = screen.hello_height = 0;
    screen.first_frame_flushed = false;
    (void)screen_resize(0, 0);
    desktop.frames.clear();
    desktop.open_result = S_OK;
    desktop.mode_width = width;
    desktop.mode_height = height;
    paint_desktop(width, height);
    server_log_clear();
}

static void start_captured(UINT width, UINT height)
{
    start_fresh(width, height);
    REQUIRE(capture_start() == 1);
    desktop.frames.push_back({});
    REQUIRE(capture_step() == CAPTURE_FRAME);
    server_log_clear();
}

static std::vector<uint32_t> frame_copy()
{
    std::vector<uint32_t> copy((size_t)screen.padded_width * (size_t)screen.padded_height);
    memcpy(copy.data(), screen.frame_buffer, copy.size() * 4);
    return copy;
}

// Pixels that are not the desktop's inside one of the boxes or not as before outside.
static int64_t wrong_pixels(const std::vector<RECT> &boxes, const std::vector<uint32_t> &before)
{
    std::vector<uint32_t> now = frame_copy();
    int64_t wrong = 0;
    for (int32_t y = 0; y < screen.padded_height; y++) {
        for (int32_t x = 0; x < screen.padded_width; x++) {
            size_t at = (size_t)(y * screen.padded_width + x);
            uint32_t expected = before[at];
            for (const RECT &box : boxes) {
                if (x >= box.left && x < box.right && y >= box.top && y < box.bottom)
                    expected = desktop.pixels[(size_t)y * desktop.width + (size_t)x];
            }
            wrong += now[at] != expected;
        }
    }
    return wrong;
}

static std::vector<uint32_t> blank_frame()
{
    return std::vector<uint32_t>((size_t)screen.padded_width * (size_t)screen.padded_height);
}

TEST_CASE("the first frame is copied whole to the pixel")
{
    for (bool presented : {true, false}) {
        CAPTURE(presented);
        start_fresh(1366, 768);
        REQUIRE(capture_start() == 1);
        CHECK(server_log_lines() == lines{"DXGI duplication 1366x768"});
        frame_script frame;
        frame.presented = presented;
        desktop.frames.push_back(frame);
        ULONG before = references(desktop.texture);
        CHECK(capture_step() == CAPTURE_FRAME);
        CHECK(wrong_pixels({{0, 0, 1366, 768}}, blank_frame()) == 0);
        CHECK(references(desktop.texture) == before);
        CHECK(capture_step() == CAPTURE_NOTHING); // not INVALID_CALL: the frame was released
    }
}

TEST_CASE("rectangles are copied to the pixel and nothing else is")
{
    start_captured(1366, 768);
    for (int32_t round = 0; round < 3; round++) {
        std::vector<uint32_t> before = frame_copy();
        paint_desktop(1366, 768);
        frame_script frame;
        frame.moves = {{{10, 20}, {700, 5, 900, 255}}, {{-5, 0}, {0, 300, 20, 310}}};
        frame.dirty = {{0, 600, 8, 768}, {1360, 700, 1500, 900}, {50, 50, 50, 60}};
        std::vector<RECT> copied = {
            {700, 5, 900, 255}, {0, 300, 20, 310}, {0, 600, 8, 768}, {1360, 700, 1366, 768}};
        for (int32_t i = 0; i < 200 * round; i++) { // longer lists than before
            RECT box = {i * 2, 400 + i % 7, i * 2 + 1, 420};
            frame.dirty.push_back(box);
            copied.push_back(box);
        }
        desktop.frames.push_back(frame);
        ULONG held = references(desktop.texture);
        screen.move_count = 0;
        CHECK(capture_step() == CAPTURE_FRAME);
        CHECK(wrong_pixels(copied, before) == 0);
        CHECK(references(desktop.texture) == held);
        REQUIRE(screen.move_count == 1);
        CHECK(screen.move_list[0].src_y == 20);
        CHECK(screen.move_list[0].dst_x == 700);
        CHECK(screen.move_list[0].h == 250);
        CHECK(capture_step() == CAPTURE_NOTHING);
    }
}

TEST_CASE("a new pointer alone is released and changes nothing")
{
    start_captured(640, 480);
    std::vector<uint32_t> before = frame_copy();
    paint_desktop(640, 480);
    frame_script frame;
    frame.presented = false;
    ULONG held = references(desktop.texture);
    desktop.frames.push_back(frame);
    desktop.frames.push_back(frame);
    CHECK(capture_step() == CAPTURE_NOTHING);
    CHECK(capture_step() == CAPTURE_NOTHING);
    CHECK(desktop.frames.empty());
    CHECK(wrong_pixels({}, before) == 0);
    CHECK(references(desktop.texture) == held);
    CHECK(server_log_lines().empty());
}

TEST_CASE("unreadable rectangles have the whole screen copied")
{
    for (int32_t failing = 0; failing < 2; failing++) {
        CAPTURE(failing);
        start_captured(640, 480);
        paint_desktop(640, 480);
        frame_script frame;
        frame.moves = {{{10, 20}, {30, 40, 50, 60}}};
        frame.dirty = {{0, 0, 8, 8}};
        (failing == 0 ? frame.moves_result : frame.dirty_result) = E_FAIL;
        desktop.frames.push_back(frame);
        CHECK(capture_step() == CAPTURE_FRAME);
        CHECK(wrong_pixels({{0, 0, 640, 480}}, blank_frame()) == 0);
        CHECK(screen.move_count == 0);
    }
}

TEST_CASE("a texture of another size is copied as far as both go")
{
    start_captured(640, 480);
    std::vector<uint32_t> before = frame_copy();
    paint_desktop(600, 500);
    desktop.frames.push_back({});
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(wrong_pixels({{0, 0, 600, 480}}, before) == 0);
}

TEST_CASE("a lost duplication is made anew with the new size")
{
    start_captured(640, 480);
    screen_session_start();
    screen.first_frame_flushed = true;
    ULONG held = references(device);
    desktop.mode_width = 800;
    desktop.mode_height = 600;
    frame_script lost;
    lost.result = DXGI_ERROR_ACCESS_LOST;
    desktop.frames.push_back(lost);
    CHECK(capture_step() == CAPTURE_RESTARTED);
    CHECK(server_log_lines() == lines{"AcquireNextFrame 887a0026", "DXGI duplication 800x600"});
    CHECK(desktop.duplications == 1);
    CHECK(references(device) == held);
    CHECK(screen.screen_width == 800);
    CHECK(screen.hello_width == 640);

    paint_desktop(800, 600);
    desktop.frames.push_back({});
    CHECK(capture_step() == CAPTURE_FRAME);
    CHECK(wrong_pixels({{0, 0, 800, 600}}, blank_frame()) == 0);
}

TEST_CASE("a resource that is no texture of two dimensions starts it anew")
{
    start_captured(640, 480);
    D3D11_BUFFER_DESC description = {};
    description.ByteWidth = 64;
    description.Usage = D3D11_USAGE_DEFAULT;
    description.BindFlags = D3D11_BIND_VERTEX_BUFFER;
    ID3D11Buffer *buffer = nullptr;
    REQUIRE(SUCCEEDED(device->CreateBuffer(&description, nullptr, &buffer)));
    frame_script frame;
    frame.other_resource = buffer;
    desktop.frames.push_back(frame);
    CHECK(capture_step() == CAPTURE_RESTARTED);
    CHECK(server_log_lines() == lines{"AcquireNextFrame 80004002", "DXGI duplication 640x480"});
    CHECK(desktop.duplications == 1);
    CHECK(buffer->Release() == 0);
}

TEST_CASE("a duplication too large for a screen leaves GDI and no reference")
{
    start_fresh(640, 480);
    ULONG device_held = references(device), context_held = references(context);
    desktop.mode_width = SCREEN_SIDE_MAX + 1;
    desktop.mode_height = 8;
    CHECK(capture_start() == 0);
    CHECK_FALSE(capture_is_duplication());
    CHECK(desktop.duplications == 0);
    CHECK(references(device) == device_held);
    CHECK(references(context) == context_held);
}

TEST_CASE("a duplication that is lost for good leaves GDI and no reference")
{
    start_fresh(640, 480);
    ULONG device_held = references(device), context_held = references(context);
    start_captured(640, 480);
    CHECK(desktop.duplications == 1);
    desktop.open_result = DXGI_ERROR_UNSUPPORTED;
    frame_script lost;
    lost.result = E_ACCESSDENIED;
    desktop.frames.push_back(lost);
    CHECK(capture_step() == CAPTURE_RESTARTED);
    CHECK_FALSE(capture_is_duplication());
    REQUIRE(server_log_lines().size() == 3);
    CHECK(server_log_lines()[0] == "AcquireNextFrame 80070005");
    CHECK(server_log_lines()[1] == "DuplicateOutput 887a0004");
    CHECK(server_log_lines()[2].rfind("GDI capture ", 0) == 0);
    CHECK(desktop.duplications == 0);
    CHECK(references(device) == device_held);
    CHECK(references(context) == context_held);
    release_texture();
    CHECK(capture_step() == CAPTURE_FRAME); // of the real screen
}
