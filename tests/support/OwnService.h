// Linking OwnService.cpp replaces the platform's service address by a port of loopback that was free at the first call
// of ownServicePort().

#ifndef VEXALIVE_TESTS_SUPPORT_OWN_SERVICE_H
#define VEXALIVE_TESTS_SUPPORT_OWN_SERVICE_H

// The port of the adapter's service; fixed before main, when the adapter reads its address.
int ownServicePort();

#endif
