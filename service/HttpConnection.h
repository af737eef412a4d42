#ifndef VEXALIVE_SERVICE_HTTP_CONNECTION_H
#define VEXALIVE_SERVICE_HTTP_CONNECTION_H

#include "service/HttpServer.h"
#include "service/SocketStream.h"

namespace vexalive {

/// Serves the HTTP/1.1 requests of one connection, one after the other, until the connection ends.
///
/// It implements what the service needs: complete bodies, with a length or in chunks. It does not support ranges,
/// compression, forms and upgrades. The time and the bytes of each request are limited before the handler is called.
void serveConnection(SocketStream& stream, const HttpServer::Routes& routes, const HttpServer::Handler& handler,
                     bool isFromLoopback);

}  // namespace vexalive

#endif
