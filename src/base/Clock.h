/// @file
/// The SDK's two clocks. The default implementation is platform/Clock.cpp on the standard clocks. Any thread may call.

#ifndef VEXALIVE_BASE_CLOCK_H
#define VEXALIVE_BASE_CLOCK_H

#include <cstdint>

/// Milliseconds since an arbitrary origin; never decreases.
uint64_t kstf_gettickcount();

/// Milliseconds since 1970-01-01 00:00 UTC.
uint64_t kstf_getutctick();

#endif
