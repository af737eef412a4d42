// The service's certificate authority and server certificate, and the folder that keeps them.
//
// Used by LiveService. The folder, open to its owner only, holds:
//     ca.pem      the authority's certificate, for clients to trust; 10 years
//     ca-key.pem  its private key
//     server.pem  the server's certificate and private key; 1 year
//     lock        held while the others are read or written

#ifndef VEXALIVE_SERVICE_CERTIFICATES_H
#define VEXALIVE_SERVICE_CERTIFICATES_H

#include <ctime>
#include <string>

namespace vexalive {

struct Certificates {
    std::string caFile;     // path
    std::string serverPem;  // certificate and private key as text
};

// Where a service keeps its certificates unless told otherwise; empty if the environment names no home.
std::string defaultStateFolder();

// Makes the folder and what is missing in it. The server certificate is for localhost, 127.0.0.1 and ::1, and for
// `address` if that is another numeric address or a host name; it is made anew when it has less than 30 days left,
// lacks a name or was not signed by the authority. The authority is never replaced, since clients trust it. Several
// processes and threads may call this at a time for one folder. False if it fails; `error` tells why and what to do.
bool prepareCertificates(const std::string& folder, const std::string& address, std::time_t now,
                         Certificates& certificates, std::string& error);

}  // namespace vexalive

#endif
