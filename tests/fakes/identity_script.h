// An identity that the test writes and reads, in place of the one kept in files.
#ifndef QV_TESTS_FAKES_IDENTITY_SCRIPT_H
#define QV_TESTS_FAKES_IDENTITY_SCRIPT_H

#include <stdint.h>
#include <string>
#include <vector>

// Fills in: this relay mode, relay "127.0.0.1", room "123456789", computer name "host-box",
// password "secret", state 0, no peer, no rotations. No other thread may use it meanwhile.
void identity_script_reset(int32_t relay_mode);

// Only while no server runs.
void identity_script_set_computer_name(const char *name);
// Called whenever the server asks for the relay's name: for its first line, then before each
// registration. Null for nothing.
void identity_script_on_relay(void (*called)());
// Called when the server takes the password, in the middle of a handshake.
void identity_script_on_password(void (*called)());

// Any thread.
void identity_script_set_password(const char *text);
// The password that the next rotation check puts in place; the other checks do nothing.
void identity_script_password_is_due(const char *next);
int identity_script_rotation_checks();
std::string identity_script_peer_name();
// Every value that host_set_state was called with, in order.
std::vector<int32_t> identity_script_states();

#endif
