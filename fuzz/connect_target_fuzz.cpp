// Options: -max_len=512
//
// What may be typed to reach a computer, against the rules in another order.
#include "app/connect_target.h"
#include "fuzz/fuzz.h"

#include <string>

using namespace app;

static std::string text_of(fuzz_input *in, size_t limit)
{
    std::vector<uint8_t> text = take_text(in, limit);
    return std::string(text.begin(), text.end());
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input in = {data, size};
    const std::string target = text_of(&in, 200);
    const std::string password = text_of(&in, 100);
    const std::string relay = text_of(&in, 150);
    connect_request *request =
        connect_request_new(target.c_str(), password.c_str(), relay.c_str());
    FUZZ_CHECK(request);

    std::string host = relay.substr(0, 127), port = "7000";
    bool is_id = target.find_first_not_of("0123456789") == std::string::npos;
    if (!is_id) {
        host = target.substr(0, 127);
        size_t colon = host.rfind(':');
        port = colon == std::string::npos ? "7777" : host.substr(colon + 1, 15);
        host = host.substr(0, colon);
    }
    FUZZ_CHECK(request->use_relay == (is_id ? 1u : 0u));
    FUZZ_CHECK(request->host == host);
    FUZZ_CHECK(request->port == port);
    FUZZ_CHECK(request->target == target.substr(0, 63));
    FUZZ_CHECK(request->password == password.substr(0, 63));
    connect_request_free(request);
    return 0;
}
