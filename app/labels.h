// What the main window's labels say. Pure.
#ifndef QV_APP_LABELS_H
#define QV_APP_LABELS_H

#include <stddef.h>
#include <stdint.h>

namespace app
{

constexpr size_t LABEL_SIZE = 200; // with terminator; longer texts are cut

// The first nine characters of the ID in three groups, to be read out.
void label_id(char label[LABEL_SIZE], const char *id);

// What the host is doing (state is a host_state_value): who is looking at this computer, or
// by which relay and under which name it can be reached.
void label_status(char label[LABEL_SIZE], int32_t state, const char *peer, const char *relay,
                  const char *computer);

} // namespace app

#endif
