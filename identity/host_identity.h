// What a host is known by: its ID, its password, its name, and where it can be reached.
//
// One identity per process. The ID survives restarts in id.txt; the password does not: every
// start makes a new one, six hours later it is due to be replaced when a viewer connects,
// and a password that the user set stays until the process ends. host.txt publishes all of
// it for the machine's owner and is never read back.
//
// Texts are published whole: a writer fills a buffer of its own and swaps one pointer, so a
// reader on another thread sees an old text or a new one, never half of one. Accessors
// return such pointers; callers copy or show them and never free them. A buffer is used
// again TEXT_SLOTS changes later, so a pointer must not be kept: ask again.
#ifndef QV_IDENTITY_HOST_IDENTITY_H
#define QV_IDENTITY_HOST_IDENTITY_H

#include <stddef.h>
#include <stdint.h>

constexpr size_t HOST_PASSWORD_SIZE = 33; // with terminator
constexpr uint32_t PASSWORD_ROTATION_MS = 21600000;
constexpr uint32_t TEXT_SLOTS = 64;

enum host_state_value : int32_t {
    HOST_OFFLINE = 0, // starting, or a session just ended
    HOST_WAITING = 1, // online, waiting for a viewer
    HOST_SERVING = 2, // a viewer is connected
};

// Sets up the identity: name, ID, room, relay (relay_host.h), a fresh password. Called once,
// before any other thread uses the identity. relay_mode 1: the host serves through the relay
// with its ID as room; 0: it listens itself.
void host_identity_init(int32_t relay_mode);

// Reads id.txt or makes a new nine-digit ID and writes it there.
void host_load_or_create_id();

// Replaces the password by a generated one and writes host.txt: always with force, else
// only when it is empty or has reached its age; never while a user's password stands.
void host_rotate_password(int32_t force);

// Sets the user's password (cut to 32 bytes), or with null or an empty text goes back to
// generated ones. The empty text is never published in between.
void host_set_password(const char *text);

// Writes host.txt; silent when it cannot be written.
void host_write_info();

const char *host_get_id();
const char *host_get_password();
const char *host_get_computer_name();
const char *host_get_peer_name();
int32_t host_get_state();

// For the host server.
const char *host_get_room();
const char *host_get_relay();
int32_t host_get_relay_mode();
int32_t host_get_text_layer_enabled();
int32_t host_get_window_list_enabled();

// Copies the current password, terminated; the caller wipes its copy.
void host_copy_password(char password[HOST_PASSWORD_SIZE]);

// The server thread publishes what it does through these two.
void host_set_state(int32_t state);
void host_set_peer_name(const char *name);

#endif
