// Where the live-interface service is. Default: platform/ServiceAddress.cpp, which reads the environment once.

#ifndef VEXALIVE_BASE_SERVICE_ADDRESS_H
#define VEXALIVE_BASE_SERVICE_ADDRESS_H

// Both are constant for the life of the process, never null, and may be called on any thread and during static
// initialisation.

// The service as "host" or "host:port".
const char* kstf_get_live_service_host();

// What follows the biz id and a dot in a push domain.
const char* kstf_get_push_domain_suffix();

#endif
