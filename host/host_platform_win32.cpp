// What the server asks of Windows at its start. Nothing depends on success: without it the
// picture is scaled, or the pacing coarser.
#include "host/host_platform.h"

#include "protocol/system_library.h"
#include "protocol/win32.h"

#include <mmsystem.h>

namespace host
{

void host_platform_dpi_aware()
{
    SetProcessDPIAware();
}

void host_platform_real_time()
{
    void *found = system_library_function(L"winmm.dll", "timeBeginPeriod");
    if (decltype(&timeBeginPeriod) begin_period = (decltype(&timeBeginPeriod))found)
        begin_period(1); // never ended: the process end does it
    SetPriorityClass(GetCurrentProcess(), ABOVE_NORMAL_PRIORITY_CLASS);
    SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_ABOVE_NORMAL);
}

} // namespace host
