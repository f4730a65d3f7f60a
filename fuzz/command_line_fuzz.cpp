// Fakes: session_record
// Options: -max_len=512 -dict=fuzz/command_line.dict
//
// The command lines of both programs. Input: the arguments, each up to a NUL; or the parts of
// an honest command line, which has to come apart into them again.
#include "fuzz/fuzz.h"
#include "host/host_cli.h"
#include "protocol/net.h"
#include "protocol/relay_hello.h"
#include "tests/fakes/session_record.h"
#include "viewer/viewer_cli.h"

#include <memory>
#include <string>

using viewer::viewer_arguments;

// argv as the system hands it over, every string and the array of exactly their size.
struct command_line {
    std::vector<std::unique_ptr<exact_bytes>> texts;
    std::unique_ptr<exact_bytes> array;
    int argc;

    explicit command_line(const std::vector<std::string> &arguments)
        : argc((int)arguments.size())
    {
        array = std::make_unique<exact_bytes>((arguments.size() + 1) * sizeof(char *));
        for (const std::string &text : arguments) {
            const uint8_t *at = (const uint8_t *)text.c_str();
            texts.push_back(
                std::make_unique<exact_bytes>(std::vector<uint8_t>(at, at + text.size() + 1)));
            argv()[texts.size() - 1] = (char *)texts.back()->data;
        }
        argv()[argc] = nullptr;
    }

    char **argv() const
    {
        return (char **)(void *)array->data;
    }
};

struct expected_arguments {
    bool usage, via_relay;
    std::string host, port, password, host_id;
};

// The rules, in another order of work: first what each argument is, then what it means.
static expected_arguments expect(const std::vector<std::string> &arguments)
{
    std::vector<std::string> plain;
    expected_arguments e = {};
    e.host_id = "qv-demo";
    for (size_t i = 1; i < arguments.size(); i++) {
        bool last = i + 1 == arguments.size();
        if (!last && arguments[i] == "-r") {
            e.via_relay = true;
            e.host_id = arguments[++i].substr(0, 18);
        } else if (!last && arguments[i] == "-p") {
            e.password = arguments[++i];
        } else if (arguments[i] != "-p" || !plain.empty()) {
            plain.push_back(arguments[i]);
        }
    }
    e.usage = plain.empty() && !e.via_relay;
    if (e.via_relay) {
        std::string address = (plain.empty() ? QV_RELAY_HOST : plain[0]).substr(0, 127);
        size_t colon = address.rfind(':');
        e.host = address.substr(0, colon);
        e.port = colon == std::string::npos ? "7000" : address.substr(colon + 1);
    } else if (!plain.empty()) {
        e.host = plain[0];
        e.port = plain.size() > 1 ? plain.back() : "7777";
    }
    return e;
}

static void check(const std::vector<std::string> &arguments, const expected_arguments &e)
{
    command_line line(arguments);
    auto parsed = std::make_unique<viewer_arguments>();
    viewer::viewer_parse_arguments(line.argc, line.argv(), parsed.get());
    FUZZ_CHECK(parsed->usage == e.usage);
    if (!e.usage) {
        FUZZ_CHECK(parsed->via_relay == e.via_relay);
        FUZZ_CHECK(parsed->host == e.host);
        FUZZ_CHECK(parsed->port == e.port);
        FUZZ_CHECK(parsed->password == e.password);
        FUZZ_CHECK(parsed->host_id == e.host_id);
    }

    session_recorded = {};
    session_recorded.result = (int)(e.host.size() & 1);
    int status = viewer::viewer_cli_main(line.argc, line.argv());
    FUZZ_CHECK(session_recorded.runs == (e.usage ? 0 : 1));
    FUZZ_CHECK(status == (e.usage ? 1 : session_recorded.result));
    if (!e.usage)
        FUZZ_CHECK(session_recorded.host_id == e.host_id);

    bool lone = arguments.size() == 2;
    host::host_command command = host::HOST_USAGE;
    if (arguments.size() < 2)
        command = host::HOST_RUN_DIRECT;
    else if (lone && arguments[1] == "-r")
        command = host::HOST_RUN_RELAY;
    else if (lone && arguments[1] == "-q")
        command = host::HOST_QUIT;
    FUZZ_CHECK(host::host_parse_arguments(line.argc, line.argv()) == command);
}

static std::string text(fuzz_input *in, size_t n)
{
    std::vector<uint8_t> bytes = take_text(in, n);
    return std::string(bytes.begin(), bytes.end());
}

// A host or a port: no option, and not empty.
static std::string name(fuzz_input *in, size_t n)
{
    return "x" + text(in, n);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input in = {data, size};
    uint8_t kind = take_u8(&in);
    if (kind % 4 != 0) {
        std::vector<std::string> arguments;
        while (in.left > 0 && arguments.size() < 16)
            arguments.push_back(text(&in, in.left));
        check(arguments, expect(arguments));
        return 0;
    }

    // What is put together comes apart.
    expected_arguments e = {};
    e.via_relay = (kind & 4) != 0;
    e.host_id = e.via_relay ? text(&in, 18) : "qv-demo";
    e.password = text(&in, 64);
    e.host = name(&in, e.via_relay ? 60 : 300);
    e.port = name(&in, 60);
    std::vector<std::string> arguments = {"qv_client"};
    if (kind & 8)
        arguments.insert(arguments.end(), {"-p", e.password});
    if (e.via_relay) {
        size_t colon = e.port.rfind(':'); // the last one counts
        arguments.insert(arguments.end(), {"-r", e.host_id, e.host + ":" + e.port});
        if (colon != std::string::npos) {
            e.host += ":" + e.port.substr(0, colon);
            e.port = e.port.substr(colon + 1);
        }
    } else {
        arguments.insert(arguments.end(), {e.host, e.port});
    }
    if (!(kind & 8))
        arguments.insert(arguments.end(), {"-p", e.password});
    check(arguments, e);
    return 0;
}
