// The host's identity: one record for the process.
//
// host_identity_init fills it on the main thread before any other thread exists; what only
// that function writes (ID, names, room, switches) needs no protection afterwards. The rest
// changes while other threads read it, without a lock:
//
//   password       written by the server thread (rotation when a viewer connects) and the
//                  window's thread (the user sets one), read by both
//   peer name,     written by the server thread, read by the window's thread
//   host state
//
// Two writers of the password can meet. The user's wins: it is marked as the user's before
// it is published, and a rotation replaces only the very text that it found before it
// looked at that mark.
#include "identity/host_identity.h"

#include "identity/data_dir.h"
#include "identity/host_files.h"
#include "identity/relay_host.h"
#include "identity/server_log.h"
#include "protocol/bytes.h"
#include "protocol/clock.h"
#include "protocol/computer_name.h"
#include "protocol/net.h"
#include "protocol/random.h"

#include <monocypher.h>

#include <atomic>
#include <stdio.h>
#include <string.h>

constexpr size_t ID_SIZE = 16;
constexpr size_t ID_DIGITS = 9;
constexpr size_t ROOM_SIZE = 32;
constexpr size_t ROOM_MAX = 18; // characters of an ID that a room takes
constexpr size_t GENERATED_PASSWORD = 8;

static_assert(HOST_PASSWORD_SIZE > NAME_BYTES, "peer names fit the slots");

// A text that is published whole. A writer fills the next slot of the ring and then swaps
// the pointer. A slot is written again only TEXT_SLOTS changes later, so the text that a
// reader got stays as it is until then: hours for a password, and for a peer name as many
// sessions.
struct published_text {
    std::atomic<const char *> current;
    std::atomic<uint32_t> changes; // numbers the slots, so that two writers get two
    char slots[TEXT_SLOTS][HOST_PASSWORD_SIZE];
};

static published_text password = {{""}, {}, {}};
static published_text peer_name = {{""}, {}, {}};

static char id[ID_SIZE];
static char computer_name[NAME_BYTES + 1];
static char host_room[ROOM_SIZE] = "qv-demo";
static int32_t host_relay_mode;
static int32_t host_text_layer_enabled = 1;
static int32_t host_window_list_enabled = 1;

// Single words, each complete in itself, so no lock.
static std::atomic<int32_t> host_state;
static std::atomic<int32_t> password_user_set;    // 1: no rotation
static std::atomic<uint32_t> last_rotation_ticks; // when the password was generated

// Puts text, cut to what a slot takes, into the next slot; nothing shows it yet.
static const char *text_fill(published_text *t, const char *text)
{
    char *slot = t->slots[t->changes.fetch_add(1) % TEXT_SLOTS];
    copy_padded((uint8_t *)slot, HOST_PASSWORD_SIZE - 1, text);
    slot[HOST_PASSWORD_SIZE - 1] = 0;
    return slot;
}

void host_identity_init(int32_t relay_mode)
{
    host_text_layer_enabled = 1;
    host_window_list_enabled = 0;
    host_relay_mode = relay_mode;
    password_user_set = 0;

    computer_name_get(computer_name);
    relay_host_load();
    host_load_or_create_id();
    if (host_relay_mode != 0)
        copy_text(host_room, ROOM_MAX + 1, id);
    host_rotate_password(1);
}

void host_load_or_create_id()
{
    char path[DATA_FILE_SIZE];
    data_dir_id_path(path);
    id[0] = 0;
    FILE *file = fopen(path, "r");
    if (file != nullptr) {
        if (fscanf(file, "%15s", id) != 1)
            id[0] = 0;
        fclose(file);
    }
    // Any word that is long enough was somebody's decision and stands, digits or not.
    if (strlen(id) >= ID_DIGITS)
        return;

    // Kept on purpose: the generator's result is not looked at, here and for the password.
    // Nobody gets in while it fails, since the handshake needs it too and does look.
    uint8_t random[16] = {};
    random_bytes(random, sizeof random);
    for (size_t i = 0; i < ID_DIGITS; i++)
        id[i] = (char)('0' + random[i] % 10);
    id[ID_DIGITS] = 0;

    file = fopen(path, "w");
    if (file != nullptr) {
        fputs(id, file);
        fclose(file);
    }
}

void host_rotate_password(int32_t force)
{
    // 55 characters, without those that are easily taken for others. Kept on purpose: the
    // modulus is 54, so the last one never appears.
    static const char alphabet[] = "23456789abcdefghjkmnpqrstuvwxyzABCDEFGHJKLMNPQRSTUVWXYZ";
    constexpr uint32_t modulus = 54;
    static_assert(sizeof alphabet - 1 == modulus + 1);

    const char *found = password.current.load();
    if (password_user_set == 1)
        return;
    // In this order: beside a rotation that another thread makes in between, a clock that
    // was read first would lie in the past, which is as good as 49 days later.
    const uint32_t last = last_rotation_ticks;
    const uint32_t now = clock_ms();
    if (force == 0 && found[0] != 0 && now - last < PASSWORD_ROTATION_MS)
        return;

    uint8_t random[32] = {};
    random_bytes(random, sizeof random);
    char text[GENERATED_PASSWORD + 1];
    for (size_t i = 0; i < GENERATED_PASSWORD; i++)
        text[i] = alphabet[random[i] % modulus];
    text[GENERATED_PASSWORD] = 0;

    last_rotation_ticks = now;
    const char *fresh = text_fill(&password, text);
    crypto_wipe(random, sizeof random);
    crypto_wipe(text, sizeof text);
    if (!password.current.compare_exchange_strong(found, fresh))
        return; // another thread has set one meanwhile, and published it
    host_write_info();
    server_log("password rotated (next in %dh)", (int)(PASSWORD_ROTATION_MS / 3600000));
}

void host_set_password(const char *text)
{
    if (text == nullptr || text[0] == 0) {
        // The old one stands until the generated one takes its place.
        password_user_set = 0;
        host_rotate_password(1);
        return;
    }
    password_user_set = 1;
    password.current = text_fill(&password, text);
    host_write_info();
    server_log("password set by user");
}

void host_write_info()
{
    char path[DATA_FILE_SIZE];
    data_dir_host_path(path);
    // Written again when another thread changed the password meanwhile: of two writers the
    // later may have read the earlier password, or their texts may have met in the file.
    const char *published;
    do {
        published = password.current.load();
        FILE *file = open_private_file(path);
        if (file == nullptr)
            return;
        fprintf(file, "id=%s\npassword=%s\nrelay=%s:%d\nname=%s\n", id, published,
                relay_host_get(), RELAY_PORT, computer_name);
        fclose(file);
    } while (published != password.current.load());
}

const char *host_get_id()
{
    return id;
}

const char *host_get_password()
{
    return password.current.load();
}

const char *host_get_computer_name()
{
    return computer_name;
}

const char *host_get_peer_name()
{
    return peer_name.current.load();
}

int32_t host_get_state()
{
    return host_state;
}

const char *host_get_room()
{
    return host_room;
}

const char *host_get_relay()
{
    return relay_host_get();
}

int32_t host_get_relay_mode()
{
    return host_relay_mode;
}

int32_t host_get_text_layer_enabled()
{
    return host_text_layer_enabled;
}

int32_t host_get_window_list_enabled()
{
    return host_window_list_enabled;
}

void host_copy_password(char copy[HOST_PASSWORD_SIZE])
{
    copy_text(copy, HOST_PASSWORD_SIZE, password.current.load());
}

void host_set_state(int32_t state)
{
    host_state = state;
}

void host_set_peer_name(const char *name)
{
    peer_name.current = text_fill(&peer_name, name);
}
