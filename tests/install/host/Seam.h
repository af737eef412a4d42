// What the adapter has sent and reported through the host's facilities.

#ifndef HOST_SEAM_H
#define HOST_SEAM_H

#include <string>
#include <vector>

// Waits until the adapter has made `count` event reports; each as "event information".
std::vector<std::string> awaitReports(size_t count);

// The addresses and bodies sent so far, each as "address body".
std::vector<std::string> requests();

// Waits for the threads that deliver responses; call after the last request.
void endDeliveries();

#endif
