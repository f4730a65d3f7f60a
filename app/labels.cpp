// The texts of the labels that follow the host.
#include "app/labels.h"

#include "identity/host_identity.h"
#include "protocol/bytes.h"

#include <stdio.h>

namespace app
{

void label_id(char label[LABEL_SIZE], const char *id)
{
    uint8_t c[9];
    copy_padded(c, sizeof c, id);
    snprintf(label, LABEL_SIZE, "%c%c%c %c%c%c %c%c%c", c[0], c[1], c[2], c[3], c[4], c[5],
             c[6], c[7], c[8]);
}

void label_status(char label[LABEL_SIZE], int32_t state, const char *peer, const char *relay,
                  const char *computer)
{
    switch (state) {
    case HOST_SERVING:
        snprintf(label, LABEL_SIZE, "Connected: %s is viewing this computer", peer);
        break;
    case HOST_WAITING:
        snprintf(label, LABEL_SIZE, "Online via %s, waiting for a viewer  (%s)", relay,
                 computer);
        break;
    default:
        copy_text(label, LABEL_SIZE, "Starting...");
    }
}

} // namespace app
