// Wraps: free calloc
// What becomes of a request's memory: seen at the moment when it is given back.
#include "app/connect_target.h"

#include "tests/freed_block.h"
#include "tests/test.h"

#include <string.h>

using namespace app;

static bool no_memory;

extern "C" void *__real_calloc(size_t count, size_t size);
extern "C" void *__wrap_calloc(size_t count, size_t size);

void *__wrap_calloc(size_t count, size_t size)
{
    return no_memory ? nullptr : __real_calloc(count, size);
}

TEST_CASE("a request is wiped before its memory is given back")
{
    connect_request *request = connect_request_new("123456789", "secret", "relay");
    REQUIRE(request);
    CHECK(strcmp(request->password, "secret") == 0);
    watch_block(request, sizeof *request);
    connect_request_free(request);
    CHECK(watched_block_was_wiped());
}

TEST_CASE("without memory there is no request")
{
    no_memory = true;
    const connect_request *request = connect_request_new("123456789", "secret", "relay");
    no_memory = false;
    CHECK(request == nullptr);
}
