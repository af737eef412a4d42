#ifndef VEXALIVE_SERVICE_HTTP_CONNECTION_H
#define VEXALIVE_SERVICE_HTTP_CONNECTION_H

#include "service/HttpServer.h"
#include "service/SocketStream.h"

namespace vexalive {

/// Serves the HTTP/1.1 requests of one connection, one after the other, until the connection ends.
///
/// It offers what the service needs and no more: a body is sent whole, as it is and with its length (or in chunks);
/// ranges, compression, forms and upgrades do not exist. Each request is bounded in time and in bytes before the
/// handler sees it.
void serveConnection(SocketStream& stream, const HttpServer::Routes& routes, const HttpServer::Handler& handler,
                     bool isFromLoopback);

}  // namespace vexalive

#endif
