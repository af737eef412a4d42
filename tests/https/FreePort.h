#ifndef VEXALIVE_TESTS_HTTPS_FREE_PORT_H
#define VEXALIVE_TESTS_HTTPS_FREE_PORT_H

// A port of loopback that was free a moment ago.
int freePort();

#endif
