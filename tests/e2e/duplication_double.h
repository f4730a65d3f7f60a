// A double of Desktop Duplication over real Direct3D 11.
//
// Wine has Direct3D but duplicates no output. A program that is linked with this gets, in
// place of the system's, a duplication that hands out real textures of a real device, frame
// by frame as its script says, and that watches its user: copies and maps are looked at as
// they are made, and every object counts its references.
//
// One thread, the one that captures.
#ifndef QV_TESTS_E2E_DUPLICATION_DOUBLE_H
#define QV_TESTS_E2E_DUPLICATION_DOUBLE_H

#include "protocol/win32.h"

#include <d3d11.h>
#include <dxgi1_2.h>

#include <stdint.h>
#include <string>
#include <vector>

// What one AcquireNextFrame brings.
struct double_frame {
    HRESULT result = S_OK;
    bool presented = true;
    UINT accumulated = 1;
    std::vector<DXGI_OUTDUPL_MOVE_RECT> moves;
    std::vector<RECT> dirty;
    int64_t metadata_bytes = -1; // told; -1: what the lists take
    HRESULT moves_result = S_OK, dirty_result = S_OK, release_result = S_OK;
    IUnknown *resource = nullptr; // handed out in place of the desktop
    bool no_resource = false;
};

struct duplication_double_record {
    // The desktop. A device is made at the first use and stays.
    ID3D11Device *device;
    ID3D11DeviceContext *context;
    ID3D11Texture2D *texture;
    UINT width, height; // of the texture
    std::vector<uint32_t> pixels;
    UINT mode_width, mode_height; // as the duplication tells them

    // The script: fills the next frame, or returns false for a wait without one.
    bool (*next_frame)(double_frame *frame);
    HRESULT open_result, staging_result, map_result;

    // What was done. Alive and held fall back to what they were when all is released.
    int32_t duplications, stagings; // alive
    int32_t held, mapped;           // 0 or 1
    int32_t opened, frames, whole_copies, box_copies, maps;
    std::vector<std::string> faults; // what real Direct3D would refuse or not survive
};

extern duplication_double_record desktop;

// Makes the device and gives the desktop this size, without a picture.
void double_open(UINT width, UINT height);

// Shows desktop.pixels: in a new texture when the size is another than before.
void double_show(UINT width, UINT height);

// Releases the texture.
void double_release_texture();

// References that others than the caller hold, as far as the object tells.
ULONG double_references(IUnknown *object);

#endif
