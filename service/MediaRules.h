#ifndef VEXALIVE_SERVICE_MEDIA_RULES_H
#define VEXALIVE_SERVICE_MEDIA_RULES_H

#include <string>

#include "common/Result.h"
#include "service/Origin.h"
#include "service/RequestCheck.h"

namespace vexalive {

/// A worker's configuration, one line. `origin` is an address without an application.
std::string relayConfiguration(const AcceptedRequest& request, const std::string& origin);
std::string mixConfiguration(const AcceptedRequest& request, const std::string& origin);

/// Whether a stream can be relayed to an address. The error is a short reason: "no host".
Result<void> checkDestination(const std::string& destination, const OriginAddress& origin);

/// The name of the stream in nginx's form-encoded query about a publisher.
std::string publishedName(const std::string& form);

/// Whether a stream of that name may be published.
Result<void> checkPublishedName(const std::string& name);

}  // namespace vexalive

#endif
