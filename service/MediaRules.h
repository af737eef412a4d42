#ifndef VEXALIVE_SERVICE_MEDIA_RULES_H
#define VEXALIVE_SERVICE_MEDIA_RULES_H

#include <string>

#include "common/Result.h"
#include "service/Origin.h"
#include "service/RequestCheck.h"

namespace vexalive {

/// The configuration of a worker, as one line. `origin` is the URL of the origin without an application name.
std::string relayConfiguration(const AcceptedRequest& request, const std::string& origin);
std::string mixConfiguration(const AcceptedRequest& request, const std::string& origin);

/// Whether a stream can be relayed to `destination`. The error is a short reason, for example "no host".
Result<void> checkDestination(const std::string& destination, const OriginAddress& origin);

/// The stream name in `form`, the form-encoded body that nginx posts before it accepts a publisher.
std::string publishedName(const std::string& form);

/// Whether a stream of that name may be published.
Result<void> checkPublishedName(const std::string& name);

}  // namespace vexalive

#endif
