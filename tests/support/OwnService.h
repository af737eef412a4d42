// Linking OwnService.cpp puts a service of this program's own in place of the platform's address: on a port of loopback
// that was free when it was first asked for.

#ifndef VEXALIVE_TESTS_SUPPORT_OWN_SERVICE_H
#define VEXALIVE_TESTS_SUPPORT_OWN_SERVICE_H

// The port of the adapter's service; fixed before main, as the adapter asks for its address then.
int ownServicePort();

#endif
