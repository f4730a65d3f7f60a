// Wraps: free calloc
// What becomes of a request's memory: seen at the moment when it is given back.
#include "app/connect_target.h"

#include "tests/test.h"

#include <string.h>

using namespace app;

static const void *watched;
static bool was_zero;
static bool no_memory;

extern "C" void __real_free(void *block);
extern "C" void *__real_calloc(size_t count, size_t size);
extern "C" void __wrap_free(void *block);
extern "C" void *__wrap_calloc(size_t count, size_t size);

void __wrap_free(void *block)
{
    if (block && block == watched) {
        static const connect_request zero = {};
        was_zero = memcmp(block, &zero, sizeof zero) == 0;
        watched = nullptr;
    }
    __real_free(block);
}

void *__wrap_calloc(size_t count, size_t size)
{
    return no_memory ? nullptr : __real_calloc(count, size);
}

TEST_CASE("a request is wiped before its memory is given back")
{
    connect_request *request = connect_request_new("123456789", "secret", "relay");
    REQUIRE(request);
    CHECK(strcmp(request->password, "secret") == 0);
    watched = request;
    connect_request_free(request);
    CHECK(watched == nullptr); // it was freed
    CHECK(was_zero);
}

TEST_CASE("without memory there is no request")
{
    no_memory = true;
    const connect_request *request = connect_request_new("123456789", "secret", "relay");
    no_memory = false;
    CHECK(request == nullptr);
}
