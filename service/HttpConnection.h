#ifndef VEXALIVE_SERVICE_HTTP_CONNECTION_H
#define VEXALIVE_SERVICE_HTTP_CONNECTION_H

#include "service/HttpServer.h"
#include "service/SocketStream.h"

namespace vexalive {

/// Serves the HTTP/1.1 requests of one connection, one after the other, until the connection ends.
///
/// The handler is called when a request has arrived completely, with Content-Length or in chunks. The time and the size
/// of each request are limited. Ranges, compression, multipart forms and protocol upgrades are not supported.
void serveConnection(SocketStream& stream, const HttpServer::Routes& routes, const HttpServer::Handler& handler,
                     bool isFromLoopback);

}  // namespace vexalive

#endif
