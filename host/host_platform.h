// What the server asks of the platform once, at start.
#ifndef QV_HOST_HOST_PLATFORM_H
#define QV_HOST_HOST_PLATFORM_H

namespace host
{

// Makes the process aware of physical pixels.
void host_platform_dpi_aware();

// 1 ms timer resolution, above-normal priority of the process and the calling thread.
void host_platform_real_time();

} // namespace host

#endif
