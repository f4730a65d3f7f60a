// A program that imports what planted_test.py plants: the proof that its trap works. It ends
// with the number of libraries of which it got the planted one, whose functions return -1.
#include "protocol/win32.h"

#include <bcrypt.h>
#include <d3d11.h>
#include <dwmapi.h>
#include <dxgi.h>
#include <mmsystem.h>

int main()
{
    UCHAR random = 0;
    IDXGIFactory1 *factory = nullptr;
    int planted = 0;
    planted += BCryptGenRandom(nullptr, &random, 1, BCRYPT_USE_SYSTEM_PREFERRED_RNG) == -1;
    planted += timeBeginPeriod(1) == (MMRESULT)-1;
    planted += D3D11CreateDevice(nullptr, D3D_DRIVER_TYPE_NULL, nullptr, 0, nullptr, 0,
                                 D3D11_SDK_VERSION, nullptr, nullptr, nullptr) == -1;
    planted += CreateDXGIFactory1(__uuidof(IDXGIFactory1), (void **)&factory) == -1;
    planted += DwmFlush() == -1;
    return planted;
}
