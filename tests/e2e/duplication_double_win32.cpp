#include "tests/e2e/duplication_double.h"

#include "host/dxgi_device.h"
#include "identity/server_log.h"

#include <stdlib.h>
#include <string.h>

duplication_double_record desktop;

static void fault(const char *what)
{
    desktop.faults.push_back(what);
}

// -----------------------------------------------------------------------------------------
// Calls of the device and its context that are looked at on their way
//
// Both objects are the system's own. Each gets a copy of its table of functions in which
// some are replaced; the numbers are those of the interfaces' declarations.

enum device_slot { CREATE_TEXTURE_2D = 5 };
enum context_slot { MAP = 14, UNMAP = 15, COPY_SUBRESOURCE_REGION = 46, COPY_RESOURCE = 47 };

using function = void *;

static struct {
    function device[64], context[160]; // more than the interfaces have
    HRESULT(STDMETHODCALLTYPE *create_texture)
    (ID3D11Device *, const D3D11_TEXTURE2D_DESC *, const D3D11_SUBRESOURCE_DATA *,
     ID3D11Texture2D **);
    HRESULT(STDMETHODCALLTYPE *map)
    (ID3D11DeviceContext *, ID3D11Resource *, UINT, D3D11_MAP, UINT,
     D3D11_MAPPED_SUBRESOURCE *);
    void(STDMETHODCALLTYPE *unmap)(ID3D11DeviceContext *, ID3D11Resource *, UINT);
    void(STDMETHODCALLTYPE *copy_region)(ID3D11DeviceContext *, ID3D11Resource *, UINT, UINT,
                                         UINT, UINT, ID3D11Resource *, UINT, const D3D11_BOX *);
    void(STDMETHODCALLTYPE *copy_resource)(ID3D11DeviceContext *, ID3D11Resource *,
                                           ID3D11Resource *);
} real;

// What a Map hands out: the pixels in rows that are longer than they need be, as drivers
// like to have them, and gone once unmapped.
static uint8_t *mapped_bits;
static constexpr UINT ROW_REST = 256;

// Tells when a texture is destroyed: the texture holds the only reference to it.
struct life_token final : IUnknown {
    ULONG count = 1;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void **object) override
    {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override
    {
        return ++count;
    }
    ULONG STDMETHODCALLTYPE Release() override
    {
        ULONG left = --count;
        if (left == 0) {
            desktop.stagings--;
            delete this;
        }
        return left;
    }
};

// {8D3C21A4-5B0E-4E0B-9C55-2B6F8E0F7A11}
static const GUID LIFE_TOKEN = {
    0x8d3c21a4, 0x5b0e, 0x4e0b, {0x9c, 0x55, 0x2b, 0x6f, 0x8e, 0x0f, 0x7a, 0x11}};

static HRESULT STDMETHODCALLTYPE watch_create_texture(ID3D11Device *self,
                                                      const D3D11_TEXTURE2D_DESC *description,
                                                      const D3D11_SUBRESOURCE_DATA *data,
                                                      ID3D11Texture2D **texture)
{
    if (description->Usage != D3D11_USAGE_STAGING)
        return real.create_texture(self, description, data, texture);
    if (description->Width != desktop.mode_width || description->Height != desktop.mode_height)
        fault("a staging texture of another size than the desktop");
    if (FAILED(desktop.staging_result))
        return desktop.staging_result;
    HRESULT result = real.create_texture(self, description, data, texture);
    if (FAILED(result))
        return result;
    life_token *token = new life_token;
    desktop.stagings++;
    if (FAILED((*texture)->SetPrivateDataInterface(LIFE_TOKEN, token)))
        fault("the staging texture takes no token");
    token->Release();
    return result;
}

static HRESULT STDMETHODCALLTYPE watch_map(ID3D11DeviceContext *self, ID3D11Resource *resource,
                                           UINT subresource, D3D11_MAP type, UINT flags,
                                           D3D11_MAPPED_SUBRESOURCE *mapped)
{
    desktop.maps++;
    if (desktop.mapped)
        fault("mapped twice");
    if (desktop.held)
        fault("mapped while a frame is held");
    if (FAILED(desktop.map_result))
        return desktop.map_result;
    HRESULT result = real.map(self, resource, subresource, type, flags, mapped);
    if (FAILED(result))
        return result;
    desktop.mapped = 1;
    D3D11_TEXTURE2D_DESC description = {};
    ((ID3D11Texture2D *)resource)->GetDesc(&description);
    const size_t row = description.Width * 4, pitch = row + ROW_REST;
    mapped_bits = (uint8_t *)malloc(pitch * description.Height);
    memset(mapped_bits, 0xEE, pitch * description.Height);
    for (size_t y = 0; y < description.Height; y++)
        memcpy(mapped_bits + y * pitch, (uint8_t *)mapped->pData + y * mapped->RowPitch, row);
    mapped->pData = mapped_bits;
    mapped->RowPitch = (UINT)pitch;
    return result;
}

static void STDMETHODCALLTYPE watch_unmap(ID3D11DeviceContext *self, ID3D11Resource *resource,
                                          UINT subresource)
{
    if (!desktop.mapped)
        return fault("unmapped without a map");
    desktop.mapped = 0;
    free(mapped_bits);
    mapped_bits = nullptr;
    real.unmap(self, resource, subresource);
}

static D3D11_TEXTURE2D_DESC watch_copy(ID3D11Resource *to, ID3D11Resource *from,
                                       D3D11_TEXTURE2D_DESC *source)
{
    if (!desktop.held)
        fault("copied from a frame that is not held");
    if (desktop.mapped)
        fault("copied into a mapped texture");
    D3D11_TEXTURE2D_DESC target = {};
    ((ID3D11Texture2D *)to)->GetDesc(&target);
    ((ID3D11Texture2D *)from)->GetDesc(source);
    return target;
}

static void STDMETHODCALLTYPE watch_copy_region(ID3D11DeviceContext *self, ID3D11Resource *to,
                                                UINT to_sub, UINT x, UINT y, UINT z,
                                                ID3D11Resource *from, UINT from_sub,
                                                const D3D11_BOX *box)
{
    desktop.box_copies++;
    D3D11_TEXTURE2D_DESC source = {}, target = watch_copy(to, from, &source);
    if (!box || box->left >= box->right || box->top >= box->bottom || box->front != 0 ||
        box->back != 1 || box->right > source.Width || box->bottom > source.Height ||
        x + (box->right - box->left) > target.Width ||
        y + (box->bottom - box->top) > target.Height)
        fault("a box that is empty or not on both textures");
    real.copy_region(self, to, to_sub, x, y, z, from, from_sub, box);
}

static void STDMETHODCALLTYPE watch_copy_resource(ID3D11DeviceContext *self, ID3D11Resource *to,
                                                  ID3D11Resource *from)
{
    desktop.whole_copies++;
    D3D11_TEXTURE2D_DESC source = {}, target = watch_copy(to, from, &source);
    if (source.Width != target.Width || source.Height != target.Height)
        fault("a whole copy between sizes");
    real.copy_resource(self, to, from);
}

// Gives the object a table of its own, of so many entries.
static void copy_table(IUnknown *object, function *table, size_t bytes)
{
    function **own = (function **)object;
    memcpy(table, *own, bytes);
    *own = table;
}

template <class T> static void replace(function *slot, T *before, T after)
{
    *before = (T)*slot;
    *slot = (function)after;
}

static void watch_device()
{
    copy_table(desktop.device, real.device, sizeof real.device);
    copy_table(desktop.context, real.context, sizeof real.context);
    replace(&real.device[CREATE_TEXTURE_2D], &real.create_texture, watch_create_texture);
    replace(&real.context[MAP], &real.map, watch_map);
    replace(&real.context[UNMAP], &real.unmap, watch_unmap);
    replace(&real.context[COPY_SUBRESOURCE_REGION], &real.copy_region, watch_copy_region);
    replace(&real.context[COPY_RESOURCE], &real.copy_resource, watch_copy_resource);
}

// -----------------------------------------------------------------------------------------
// The duplication

struct duplication_double final : IDXGIOutputDuplication {
    ULONG count = 1;
    double_frame frame;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void **object) override
    {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override
    {
        return ++count;
    }
    ULONG STDMETHODCALLTYPE Release() override
    {
        ULONG left = --count;
        if (left == 0) {
            if (desktop.held)
                fault("released with a frame held");
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
        if (timeout_ms != 2)
            fault("another wait than 2 ms");
        if (desktop.held) {
            fault("acquired while a frame is held");
            return DXGI_ERROR_INVALID_CALL;
        }
        frame = {};
        if (!desktop.next_frame || !desktop.next_frame(&frame))
            return DXGI_ERROR_WAIT_TIMEOUT;
        if (FAILED(frame.result))
            return frame.result;
        size_t bytes =
            frame.moves.size() * sizeof frame.moves[0] + frame.dirty.size() * sizeof(RECT);
        *info = {};
        info->LastPresentTime.QuadPart = frame.presented ? 12345 : 0;
        info->AccumulatedFrames = frame.accumulated;
        info->TotalMetadataBufferSize =
            (UINT)(frame.metadata_bytes >= 0 ? frame.metadata_bytes : (int64_t)bytes);
        *resource = nullptr;
        IUnknown *given = frame.resource ? frame.resource : desktop.texture;
        if (!frame.no_resource)
            (void)given->QueryInterface(__uuidof(IDXGIResource), (void **)resource);
        desktop.held = 1;
        desktop.frames++;
        return frame.result;
    }
    template <class T>
    static HRESULT hand_out(const std::vector<T> &list, HRESULT result, UINT size, T *rects,
                            UINT *needed)
    {
        if (!desktop.held) {
            fault("rectangles of a frame that is not held");
            return DXGI_ERROR_INVALID_CALL;
        }
        *needed = (UINT)(list.size() * sizeof(T));
        if (FAILED(result))
            return result;
        if (*needed > size)
            return DXGI_ERROR_MORE_DATA;
        if (*needed > 0)
            memcpy(rects, list.data(), *needed);
        return result;
    }
    HRESULT STDMETHODCALLTYPE GetFrameDirtyRects(UINT size, RECT *rects, UINT *needed) override
    {
        return hand_out(frame.dirty, frame.dirty_result, size, rects, needed);
    }
    HRESULT STDMETHODCALLTYPE GetFrameMoveRects(UINT size, DXGI_OUTDUPL_MOVE_RECT *rects,
                                                UINT *needed) override
    {
        return hand_out(frame.moves, frame.moves_result, size, rects, needed);
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
        if (!desktop.held) {
            fault("released a frame that is not held");
            return DXGI_ERROR_INVALID_CALL;
        }
        desktop.held = 0;
        return frame.release_result;
    }
};

bool host::dxgi_device_create(dxgi_objects *objects)
{
    *objects = {};
    if (FAILED(desktop.open_result)) {
        server_log("DuplicateOutput %08lx", (unsigned long)desktop.open_result);
        return false;
    }
    desktop.device->AddRef();
    desktop.context->AddRef();
    desktop.duplications++;
    desktop.opened++;
    *objects = {desktop.device, desktop.context, new duplication_double};
    return true;
}

// -----------------------------------------------------------------------------------------
// The desktop

static void required(HRESULT result, const char *what)
{
    if (SUCCEEDED(result))
        return;
    printf("%s: %08lx\n", what, (unsigned long)result);
    exit(1);
}

void double_open(UINT width, UINT height)
{
    if (!desktop.device) {
        required(D3D11CreateDevice(nullptr, D3D_DRIVER_TYPE_HARDWARE, nullptr, 0, nullptr, 0,
                                   D3D11_SDK_VERSION, &desktop.device, nullptr,
                                   &desktop.context),
                 "D3D11CreateDevice");
        watch_device();
    }
    desktop.mode_width = width;
    desktop.mode_height = height;
}

void double_release_texture()
{
    if (desktop.texture && desktop.texture->Release() != 0)
        fault("the desktop's texture is still referred to");
    desktop.texture = nullptr;
}

void double_show(UINT width, UINT height)
{
    D3D11_TEXTURE2D_DESC now = {};
    if (desktop.texture)
        desktop.texture->GetDesc(&now);
    if (now.Width != width || now.Height != height) {
        double_release_texture();
        D3D11_TEXTURE2D_DESC description = {};
        description.Width = width;
        description.Height = height;
        description.MipLevels = 1;
        description.ArraySize = 1;
        description.Format = DXGI_FORMAT_B8G8R8A8_UNORM;
        description.SampleDesc.Count = 1;
        description.Usage = D3D11_USAGE_DEFAULT;
        description.BindFlags = D3D11_BIND_RENDER_TARGET | D3D11_BIND_SHADER_RESOURCE;
        required(desktop.device->CreateTexture2D(&description, nullptr, &desktop.texture),
                 "CreateTexture2D");
    }
    desktop.width = width;
    desktop.height = height;
    desktop.context->UpdateSubresource(desktop.texture, 0, nullptr, desktop.pixels.data(),
                                       width * 4, 0);
}

ULONG double_references(IUnknown *object)
{
    object->AddRef();
    return object->Release();
}
