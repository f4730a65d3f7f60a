// Makes the Direct3D device and the duplication of the primary output.
//
// Direct3D is looked up at run time and in the system's folder only, so that the program also
// starts where there is none; it then cannot duplicate, and the log says so.
#include "host/dxgi_device.h"

#include "identity/server_log.h"
#include "protocol/system_library.h"
#include "protocol/win32.h"

#include <d3d11.h>
#include <dxgi1_2.h>

namespace host
{

static PFN_D3D11_CREATE_DEVICE find_create_device(HRESULT *result)
{
    static PFN_D3D11_CREATE_DEVICE found; // server thread only
    if (!found) {
        void *entry = system_library_function(L"d3d11.dll", "D3D11CreateDevice");
        found = (PFN_D3D11_CREATE_DEVICE)entry;
    }
    if (!found)
        *result = HRESULT_FROM_WIN32(GetLastError());
    return found;
}

static bool create_device(dxgi_objects *objects)
{
    HRESULT result = E_FAIL;
    PFN_D3D11_CREATE_DEVICE create = find_create_device(&result);
    if (create)
        result = create(nullptr, D3D_DRIVER_TYPE_HARDWARE, nullptr, 0, nullptr, 0,
                        D3D11_SDK_VERSION, &objects->device, nullptr, &objects->context);
    if (SUCCEEDED(result) && objects->device && objects->context)
        return true;
    server_log("D3D11CreateDevice %08lx", (unsigned long)result);
    return false;
}

// Output 0 of the adapter that the device runs on; null on failure.
static IDXGIOutput1 *find_output(ID3D11Device *device)
{
    IDXGIDevice *dxgi_device = nullptr;
    IDXGIAdapter *adapter = nullptr;
    IDXGIOutput *output = nullptr;
    IDXGIOutput1 *output1 = nullptr;
    if (FAILED(device->QueryInterface(__uuidof(IDXGIDevice), (void **)&dxgi_device)))
        return nullptr;
    HRESULT result = dxgi_device->GetAdapter(&adapter);
    dxgi_device->Release();
    if (FAILED(result))
        return nullptr;
    result = adapter->EnumOutputs(0, &output);
    adapter->Release();
    if (FAILED(result))
        return nullptr;
    result = output->QueryInterface(__uuidof(IDXGIOutput1), (void **)&output1);
    output->Release();
    return SUCCEEDED(result) ? output1 : nullptr;
}

static bool duplicate_output(dxgi_objects *objects)
{
    IDXGIOutput1 *output = find_output(objects->device);
    if (!output)
        return false;
    HRESULT result = output->DuplicateOutput(objects->device, &objects->duplication);
    output->Release();
    if (SUCCEEDED(result) && objects->duplication)
        return true;
    server_log("DuplicateOutput %08lx", (unsigned long)result);
    return false;
}

bool dxgi_device_create(dxgi_objects *objects)
{
    *objects = {};
    if (create_device(objects) && duplicate_output(objects))
        return true;
    if (objects->context)
        objects->context->Release();
    if (objects->device)
        objects->device->Release();
    *objects = {}; // also whatever a failed call left there
    return false;
}

} // namespace host
