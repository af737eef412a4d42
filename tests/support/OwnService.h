// The adapter's service address in tests: a program that links OwnService.cpp uses a free port of loopback instead of
// the platform's address. The first call of ownServicePort() chooses the port.

#ifndef VEXALIVE_TESTS_SUPPORT_OWN_SERVICE_H
#define VEXALIVE_TESTS_SUPPORT_OWN_SERVICE_H

// The port of the adapter's service; fixed before main, when the adapter reads its address.
int ownServicePort();

#endif
