// The lock between the host's two threads.
//
// host_lock guards what the control thread writes besides the server thread: the cache
// mirror, prev_frame, the dirty map and the base states. The server thread holds it from
// the move step to the end of a tile walk, never during a flush; the control thread holds
// it for a miss or for part of an advertisement. Acknowledgements and input take no lock.
#ifndef QV_HOST_HOST_LOCK_H
#define QV_HOST_HOST_LOCK_H

#include "protocol/lock.h"

namespace host
{

extern lock host_lock;

} // namespace host

#endif
