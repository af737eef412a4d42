// The requests and reports that the adapter has passed to the host's facilities.

#ifndef HOST_SEAM_H
#define HOST_SEAM_H

#include <string>
#include <vector>

// Waits until the adapter has made `count` event reports. Returns each as "EVENT INFORMATION".
std::vector<std::string> awaitReports(size_t count);

// The requests so far, each as "ADDRESS BODY".
std::vector<std::string> requests();

// Waits for the threads that deliver responses. Call this after the last request.
void endDeliveries();

#endif
