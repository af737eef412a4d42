// What the host's facilities have seen, for its main program.

#ifndef HOST_SEAM_H
#define HOST_SEAM_H

#include <string>
#include <vector>

// Waits until the adapter has made `count` event reports; each as "event information".
std::vector<std::string> awaitReports(size_t count);

// The addresses and bodies sent so far, each as "address body".
std::vector<std::string> requests();

// Waits for the threads that deliver answers; nothing may be sent any more.
void endDeliveries();

#endif
