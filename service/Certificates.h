#ifndef VEXALIVE_SERVICE_CERTIFICATES_H
#define VEXALIVE_SERVICE_CERTIFICATES_H

#include <ctime>
#include <string>

#include "common/Result.h"

namespace vexalive {

struct Certificates {
    std::string caFile;     ///< path
    std::string serverPem;  ///< certificate and private key
};

/// Where a service stores its certificates by default; empty if neither XDG_STATE_HOME nor HOME is set.
std::string defaultStateFolder();

/// Creates the missing files in the service's folder, which only its owner can open:
///     ca.pem      the certificate of the service's own authority, for clients to trust; 10 years
///     ca-key.pem  its private key
///     server.pem  the server's certificate and private key; 1 year
///     lock        held while the others are read or written
/// The server certificate is for localhost, 127.0.0.1 and ::1, and for `address` if that is another numeric address or
/// a host name. It is renewed when it has less than 30 days left at the time `now`, lacks a name or was not signed by
/// the authority. The authority is never replaced, since clients trust it. Several processes and threads may call this
/// at the same time for one folder.
Result<Certificates> prepareCertificates(const std::string& folder, const std::string& address, std::time_t now);

}  // namespace vexalive

#endif
