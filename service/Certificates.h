#ifndef VEXALIVE_SERVICE_CERTIFICATES_H
#define VEXALIVE_SERVICE_CERTIFICATES_H

#include <ctime>
#include <string>

#include "common/Result.h"

namespace vexalive {

struct Certificates {
    std::string caFile;     ///< path of ca.pem
    std::string serverPem;  ///< content of server.pem
};

/// The default of LiveServiceOptions::stateFolder. Empty if neither XDG_STATE_HOME nor HOME is set.
std::string defaultStateFolder();

/// Creates the missing files in `folder`, which is accessible to its owner only. The files:
///     ca.pem      the certificate of the service's own authority, which clients have to trust; valid for 10 years
///     ca-key.pem  the private key of the authority
///     server.pem  the server's certificate and private key; valid for 1 year
///     lock        locked while the other files are read or written
/// The server certificate is for localhost, 127.0.0.1, ::1, and `address` if that is a host name or a numeric address
/// other than 0.0.0.0 and "::". It is renewed if, at the time `now`, it expires within 30 days, if it lacks one of
/// these names, or if the authority did not sign it. The authority is never replaced, since clients trust it. Several
/// processes and threads may call this function at once for one folder.
Result<Certificates> prepareCertificates(const std::string& folder, const std::string& address, std::time_t now);

}  // namespace vexalive

#endif
