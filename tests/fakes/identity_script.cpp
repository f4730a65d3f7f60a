#include "tests/fakes/identity_script.h"

#include "identity/host_identity.h"
#include "protocol/bytes.h"

#include <atomic>
#include <mutex>

static std::mutex guard;
static int32_t relay_mode;
static void (*on_relay)();
static std::atomic<void (*)()> on_password;
static std::string relay, room, computer_name;
static std::string password, next_password, peer_name;
static int rotation_checks;
static std::vector<int32_t> states;

void identity_script_reset(int32_t mode)
{
    relay_mode = mode;
    on_relay = nullptr;
    on_password = nullptr;
    relay = "127.0.0.1";
    room = "123456789";
    computer_name = "host-box";
    std::lock_guard<std::mutex> held(guard);
    password = "secret";
    next_password.clear();
    peer_name.clear();
    rotation_checks = 0;
    states.clear();
}

void identity_script_set_computer_name(const char *name)
{
    computer_name = name;
}

void identity_script_on_relay(void (*called)())
{
    on_relay = called;
}

void identity_script_on_password(void (*called)())
{
    on_password = called;
}

void identity_script_set_password(const char *text)
{
    std::lock_guard<std::mutex> held(guard);
    password = text;
}

void identity_script_password_is_due(const char *next)
{
    std::lock_guard<std::mutex> held(guard);
    next_password = next;
}

int identity_script_rotation_checks()
{
    std::lock_guard<std::mutex> held(guard);
    return rotation_checks;
}

std::string identity_script_peer_name()
{
    std::lock_guard<std::mutex> held(guard);
    return peer_name;
}

std::vector<int32_t> identity_script_states()
{
    std::lock_guard<std::mutex> held(guard);
    return states;
}

void host_rotate_password(int32_t force)
{
    std::lock_guard<std::mutex> held(guard);
    // Forced, it would not be a check.
    if (force != 0)
        return;
    rotation_checks++;
    if (!next_password.empty()) {
        password = next_password;
        next_password.clear();
    }
}

void host_copy_password(char copy[HOST_PASSWORD_SIZE])
{
    if (void (*call)() = on_password.load())
        call();
    std::lock_guard<std::mutex> held(guard);
    copy_text(copy, HOST_PASSWORD_SIZE, password.c_str());
}

void host_set_state(int32_t state)
{
    std::lock_guard<std::mutex> held(guard);
    states.push_back(state);
}

void host_set_peer_name(const char *name)
{
    std::lock_guard<std::mutex> held(guard);
    peer_name = name;
}

const char *host_get_computer_name()
{
    return computer_name.c_str();
}

const char *host_get_room()
{
    return room.c_str();
}

const char *host_get_relay()
{
    if (on_relay != nullptr)
        on_relay();
    return relay.c_str();
}

int32_t host_get_relay_mode()
{
    return relay_mode;
}

int32_t host_get_text_layer_enabled()
{
    return 1;
}

int32_t host_get_window_list_enabled()
{
    return 0;
}
