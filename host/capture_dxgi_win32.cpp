// Desktop Duplication, call by call.
//
// Every reference taken is in the record below, and dxgi_close releases whatever is there,
// so that each failure is one call away from a clean record. Decisions are made in
// capture.cpp.
#include "host/capture_dxgi.h"

#include "host/dxgi_device.h"
#include "protocol/win32.h"

#include <d3d11.h>
#include <dxgi1_2.h>

#include <stddef.h>
#include <stdlib.h>

namespace host
{

// The system's rectangles are read as ours, in place.
static_assert(sizeof(capture_box) == sizeof(RECT));
static_assert(offsetof(capture_box, bottom) == offsetof(RECT, bottom));
static_assert(sizeof(capture_move) == 24 && sizeof(DXGI_OUTDUPL_MOVE_RECT) == 24);
static_assert(offsetof(capture_move, dst) == offsetof(DXGI_OUTDUPL_MOVE_RECT, DestinationRect));

// Owner: host server thread. Zeroed = nothing open.
static struct {
    dxgi_objects objects;
    ID3D11Texture2D *staging;
    bool mapped;

    bool held;                // a frame was acquired and not given back
    IDXGIResource *resource;  // the held frame's
    ID3D11Texture2D *picture; // the same, once dxgi_open_picture was called

    uint8_t *rects; // lists of the last frame; kept between frames, only grows
    uint32_t rects_capacity;
} dxgi;

template <class T> static void release(T **reference)
{
    if (*reference)
        (*reference)->Release();
    *reference = nullptr;
}

void dxgi_close()
{
    if (dxgi.mapped)
        dxgi_unmap();
    dxgi_release_frame();
    release(&dxgi.objects.duplication);
    release(&dxgi.staging);
    release(&dxgi.objects.context);
    release(&dxgi.objects.device);
}

bool dxgi_open(int32_t *width, int32_t *height)
{
    dxgi_close();
    if (!dxgi_device_create(&dxgi.objects))
        return false;
    DXGI_OUTDUPL_DESC description = {};
    dxgi.objects.duplication->GetDesc(&description);
    *width = (int32_t)description.ModeDesc.Width;
    *height = (int32_t)description.ModeDesc.Height;
    return true;
}

bool dxgi_create_staging(int32_t width, int32_t height)
{
    D3D11_TEXTURE2D_DESC description = {};
    description.Width = (UINT)width;
    description.Height = (UINT)height;
    description.MipLevels = 1;
    description.ArraySize = 1;
    description.Format = DXGI_FORMAT_B8G8R8A8_UNORM;
    description.SampleDesc.Count = 1;
    description.Usage = D3D11_USAGE_STAGING;
    description.CPUAccessFlags = D3D11_CPU_ACCESS_READ;
    release(&dxgi.staging);
    HRESULT result = dxgi.objects.device->CreateTexture2D(&description, nullptr, &dxgi.staging);
    if (SUCCEEDED(result))
        return true;
    dxgi.staging = nullptr;
    return false;
}

uint32_t dxgi_acquire(uint32_t timeout_ms, duplication_frame *frame)
{
    DXGI_OUTDUPL_FRAME_INFO info = {};
    IDXGIResource *resource = nullptr;
    HRESULT result = dxgi.objects.duplication->AcquireNextFrame(timeout_ms, &info, &resource);
    if (FAILED(result))
        return (uint32_t)result;
    dxgi.held = true;
    dxgi.resource = resource;
    frame->presented = info.LastPresentTime.QuadPart != 0;
    frame->accumulated = info.AccumulatedFrames;
    frame->rects_bytes = info.TotalMetadataBufferSize;
    return (uint32_t)result;
}

static bool reserve_rects(uint32_t bytes)
{
    if (bytes <= dxgi.rects_capacity)
        return true;
    uint8_t *grown = (uint8_t *)realloc(dxgi.rects, bytes);
    if (!grown)
        return false;
    dxgi.rects = grown;
    dxgi.rects_capacity = bytes;
    return true;
}

bool dxgi_read_rects(uint32_t rects_bytes, duplication_rects *rects)
{
    if (!reserve_rects(rects_bytes))
        return false;
    IDXGIOutputDuplication *duplication = dxgi.objects.duplication;
    UINT move_bytes = 0, dirty_bytes = 0;
    HRESULT result = duplication->GetFrameMoveRects(
        rects_bytes, (DXGI_OUTDUPL_MOVE_RECT *)dxgi.rects, &move_bytes);
    if (FAILED(result) || move_bytes > rects_bytes)
        return false;
    move_bytes -= move_bytes % sizeof(capture_move);
    UINT rest = rects_bytes - move_bytes;
    result =
        duplication->GetFrameDirtyRects(rest, (RECT *)(dxgi.rects + move_bytes), &dirty_bytes);
    if (FAILED(result) || dirty_bytes > rest)
        return false;
    rects->moves = (const capture_move *)dxgi.rects;
    rects->move_count = move_bytes / (UINT)sizeof(capture_move);
    rects->dirty = (const capture_box *)(dxgi.rects + move_bytes);
    rects->dirty_count = dirty_bytes / (UINT)sizeof(capture_box);
    return true;
}

uint32_t dxgi_open_picture(int32_t *width, int32_t *height)
{
    if (!dxgi.resource)
        return (uint32_t)E_POINTER;
    HRESULT result =
        dxgi.resource->QueryInterface(__uuidof(ID3D11Texture2D), (void **)&dxgi.picture);
    release(&dxgi.resource);
    if (FAILED(result)) {
        dxgi.picture = nullptr;
        return (uint32_t)result;
    }
    D3D11_TEXTURE2D_DESC description = {};
    dxgi.picture->GetDesc(&description);
    *width = (int32_t)description.Width;
    *height = (int32_t)description.Height;
    return (uint32_t)result;
}

void dxgi_copy_picture()
{
    dxgi.objects.context->CopyResource(dxgi.staging, dxgi.picture);
}

void dxgi_copy_box(const capture_box &box)
{
    D3D11_BOX source = {
        (UINT)box.left, (UINT)box.top, 0, (UINT)box.right, (UINT)box.bottom, 1,
    };
    dxgi.objects.context->CopySubresourceRegion(dxgi.staging, 0, (UINT)box.left, (UINT)box.top,
                                                0, dxgi.picture, 0, &source);
}

void dxgi_release_frame()
{
    release(&dxgi.picture);
    release(&dxgi.resource);
    if (dxgi.held)
        (void)dxgi.objects.duplication->ReleaseFrame(); // the next acquire reports a loss
    dxgi.held = false;
}

uint32_t dxgi_map(const uint8_t **bits, int64_t *pitch)
{
    D3D11_MAPPED_SUBRESOURCE mapped = {};
    HRESULT result = dxgi.objects.context->Map(dxgi.staging, 0, D3D11_MAP_READ, 0, &mapped);
    if (FAILED(result))
        return (uint32_t)result;
    dxgi.mapped = true;
    *bits = (const uint8_t *)mapped.pData;
    *pitch = (int64_t)mapped.RowPitch;
    return (uint32_t)result;
}

void dxgi_unmap()
{
    dxgi.objects.context->Unmap(dxgi.staging, 0);
    dxgi.mapped = false;
}

} // namespace host
