/// @file
/// The address of the live-interface service. The default implementation is platform/ServiceAddress.cpp, which reads
/// the environment once.
///
/// Both functions return a string that is never null and constant for the life of the process. Any thread may call
/// them, also during static initialisation.

#ifndef VEXALIVE_BASE_SERVICE_ADDRESS_H
#define VEXALIVE_BASE_SERVICE_ADDRESS_H

/// The service as "host" or "host:port".
const char* kstf_get_live_service_host();

/// SUFFIX in the push domain "BIZID.SUFFIX".
const char* kstf_get_push_domain_suffix();

#endif
