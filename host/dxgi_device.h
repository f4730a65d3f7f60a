// Where the duplication's objects come from: the graphics system, or a test's double.
#ifndef QV_HOST_DXGI_DEVICE_H
#define QV_HOST_DXGI_DEVICE_H

struct ID3D11Device;
struct ID3D11DeviceContext;
struct IDXGIOutputDuplication;

namespace host
{

// A reference each, or all null.
struct dxgi_objects {
    ID3D11Device *device;
    ID3D11DeviceContext *context;
    IDXGIOutputDuplication *duplication;
};

// Makes a device of the default adapter and the duplication of its output 0; the caller owns
// the references. False, with all of them null, when any of it fails: failures of
// D3D11CreateDevice and DuplicateOutput are logged, the others are silent.
[[nodiscard]] bool dxgi_device_create(dxgi_objects *objects);

} // namespace host

#endif
