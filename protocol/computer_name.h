// This computer's name.
#ifndef QV_PROTOCOL_COMPUTER_NAME_H
#define QV_PROTOCOL_COMPUTER_NAME_H

#include "protocol/messages.h"

// Writes the computer's name into name[0..32), NUL-padded; all zero when the system does
// not tell. A Windows name has at most 15 characters, so it is always terminated. Any
// thread.
void computer_name_get(char name[NAME_BYTES]);

#endif
