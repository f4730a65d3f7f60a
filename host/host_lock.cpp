// The one lock between the server thread and the control thread; host_lock.h says what it
// guards. host_server_run initialises it before there is a second thread.
#include "host/host_lock.h"

namespace host
{

lock host_lock;

} // namespace host
