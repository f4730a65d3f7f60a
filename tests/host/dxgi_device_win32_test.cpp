// Windows only
// Fakes: server_log_record
//
// The way from no device to a duplication, with every step of it failing in turn: what the
// log tells, and that no reference is left on any way out.
#include "host/dxgi_device.h"

#include "protocol/system_library.h"
#include "protocol/win32.h"
#include "tests/fakes/server_log_record.h"
#include "tests/test.h"

#include <d3d11.h>
#include <dxgi1_2.h>

#include <string.h>

using namespace host;

using lines = std::vector<std::string>;

// The objects that are passed on the way. The code under test calls few of their functions,
// so each is an object of one class whose table has those at the places that the interfaces
// give them, and a trap everywhere else.
enum step {
    DEVICE,
    IMMEDIATE_CONTEXT,
    DXGI_DEVICE,
    ADAPTER,
    OUTPUT,
    OUTPUT1,
    DUPLICATION,
    STEPS,
};

struct step_object {
    void *const *table;
    step is;
    int32_t references;
};

static struct {
    step_object objects[STEPS];
    HRESULT results[STEPS]; // of the call that makes it
    bool null[STEPS];       // made without an object
    bool no_library, no_function;
} way;

static HRESULT make(step wanted, void **object)
{
    if (FAILED(way.results[wanted])) {
        // A caller may find anything there after a failure.
        *object = wanted == DUPLICATION ? (void *)(uintptr_t)0xDEAD : nullptr;
        return way.results[wanted];
    }
    *object = way.null[wanted] ? nullptr : &way.objects[wanted];
    if (*object)
        way.objects[wanted].references++;
    return way.results[wanted];
}

static HRESULT STDMETHODCALLTYPE query(step_object *self, REFIID wanted, void **object)
{
    *object = nullptr;
    if (self->is == DEVICE && IsEqualGUID(wanted, __uuidof(IDXGIDevice)))
        return make(DXGI_DEVICE, object);
    if (self->is == OUTPUT && IsEqualGUID(wanted, __uuidof(IDXGIOutput1)))
        return make(OUTPUT1, object);
    CHECK_MESSAGE(false, "an interface that nobody should ask for");
    return E_NOINTERFACE;
}

static ULONG STDMETHODCALLTYPE add_reference(step_object *self)
{
    return (ULONG)++self->references;
}

static ULONG STDMETHODCALLTYPE release(step_object *self)
{
    CHECK(self->references > 0);
    return (ULONG)--self->references;
}

static HRESULT STDMETHODCALLTYPE trap()
{
    CHECK_MESSAGE(false, "a function that nobody should call");
    return E_NOTIMPL;
}

static HRESULT STDMETHODCALLTYPE get_adapter(step_object *self, void **adapter)
{
    CHECK(self->is == DXGI_DEVICE);
    return make(ADAPTER, adapter);
}

static HRESULT STDMETHODCALLTYPE enum_outputs(step_object *self, UINT number, void **output)
{
    CHECK(self->is == ADAPTER);
    CHECK(number == 0);
    return make(OUTPUT, output);
}

static HRESULT STDMETHODCALLTYPE duplicate_output(step_object *self, IUnknown *device,
                                                  void **duplication)
{
    CHECK(self->is == OUTPUT1);
    CHECK((void *)device == (void *)&way.objects[DEVICE]);
    return make(DUPLICATION, duplication);
}

static HRESULT WINAPI create_device(IDXGIAdapter *adapter, D3D_DRIVER_TYPE type,
                                    HMODULE software, UINT flags,
                                    const D3D_FEATURE_LEVEL *levels, UINT level_count,
                                    UINT version, ID3D11Device **device, D3D_FEATURE_LEVEL *,
                                    ID3D11DeviceContext **context)
{
    CHECK(adapter == nullptr);
    CHECK(type == D3D_DRIVER_TYPE_HARDWARE);
    CHECK(software == nullptr);
    CHECK(flags == 0);
    CHECK(levels == nullptr);
    CHECK(level_count == 0);
    CHECK(version == 7);
    HRESULT result = make(DEVICE, (void **)device);
    return SUCCEEDED(result) ? make(IMMEDIATE_CONTEXT, (void **)context) : result;
}

// In place of the product's, which would find the system's.
void *system_library_function(const wchar_t *library, const char *name)
{
    CHECK(wcscmp(library, L"d3d11.dll") == 0);
    CHECK(strcmp(name, "D3D11CreateDevice") == 0);
    SetLastError(way.no_library ? ERROR_MOD_NOT_FOUND : ERROR_PROC_NOT_FOUND);
    return way.no_library || way.no_function ? nullptr : (void *)create_device;
}

static void start_fresh()
{
    // IUnknown has 3 functions and IDXGIObject 4 more; what follows is the interface's own.
    static void *table_of[STEPS][23];
    for (int32_t i = 0; i < STEPS; i++) {
        for (void *&entry : table_of[i])
            entry = (void *)trap;
        table_of[i][0] = (void *)query;
        table_of[i][1] = (void *)add_reference;
        table_of[i][2] = (void *)release;
    }
    table_of[DXGI_DEVICE][7] = (void *)get_adapter;
    table_of[ADAPTER][7] = (void *)enum_outputs;
    table_of[OUTPUT1][22] = (void *)duplicate_output; // the last of IDXGIOutput1
    way = {};
    for (int32_t i = 0; i < STEPS; i++)
        way.objects[i] = {table_of[i], (step)i, 0};
    server_log_clear();
}

static void check_nothing_is_held(bool device)
{
    for (int32_t i = 0; i < STEPS; i++) {
        CAPTURE(i);
        bool is_handed_out = i == DEVICE || i == IMMEDIATE_CONTEXT || i == DUPLICATION;
        CHECK(way.objects[i].references == (device && is_handed_out ? 1 : 0));
    }
}

static bool create(dxgi_objects *objects)
{
    memset(objects, 0xAA, sizeof *objects);
    return dxgi_device_create(objects);
}

static void check_failure(const lines &told)
{
    dxgi_objects objects;
    CHECK_FALSE(create(&objects));
    CHECK(objects.device == nullptr);
    CHECK(objects.context == nullptr);
    CHECK(objects.duplication == nullptr);
    CHECK(server_log_lines() == told);
    check_nothing_is_held(false);
}

// The first case of this program: a function that was found is kept.
TEST_CASE("without Direct3D there is no duplication, and the log says why")
{
    start_fresh();
    way.no_library = true;
    check_failure({"D3D11CreateDevice 8007007e"});
    server_log_clear();
    way = {};
    way.no_function = true;
    check_failure({"D3D11CreateDevice 8007007f"});
}

TEST_CASE("one reference each is handed out, and none is left on the way")
{
    start_fresh();
    dxgi_objects objects;
    CHECK(create(&objects));
    CHECK((void *)objects.device == &way.objects[DEVICE]);
    CHECK((void *)objects.context == &way.objects[IMMEDIATE_CONTEXT]);
    CHECK((void *)objects.duplication == &way.objects[DUPLICATION]);
    check_nothing_is_held(true);
    CHECK(server_log_lines().empty());
}

TEST_CASE("each step that fails ends with nothing held")
{
    struct row {
        step fails;
        HRESULT result;
        lines told;
    };
    const row rows[] = {
        {DEVICE, DXGI_ERROR_UNSUPPORTED, {"D3D11CreateDevice 887a0004"}},
        {DXGI_DEVICE, E_NOINTERFACE, {}},
        {ADAPTER, E_FAIL, {}},
        {OUTPUT, DXGI_ERROR_NOT_FOUND, {}}, // no screen at this adapter
        {OUTPUT1, E_NOINTERFACE, {}},       // before Windows 8
        {DUPLICATION, E_ACCESSDENIED, {"DuplicateOutput 80070005"}},
        {DUPLICATION, DXGI_ERROR_NOT_CURRENTLY_AVAILABLE, {"DuplicateOutput 887a0022"}},
    };
    for (const row &row : rows) {
        CAPTURE(row.fails);
        start_fresh();
        way.results[row.fails] = row.result;
        check_failure(row.told);
    }
}

TEST_CASE("success without an object is a failure")
{
    for (step missing : {DEVICE, IMMEDIATE_CONTEXT, DUPLICATION}) {
        CAPTURE(missing);
        start_fresh();
        way.null[missing] = true;
        check_failure({missing == DUPLICATION ? "DuplicateOutput 00000000"
                                              : "D3D11CreateDevice 00000000"});
    }
}
