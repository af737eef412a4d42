// A server's side of HTTP/2, as much of it as a fault needs.

#ifndef VEXALIVE_TESTS_HTTPS_FAULT_MATRIX_HTTP2_H
#define VEXALIVE_TESTS_HTTPS_FAULT_MATRIX_HTTP2_H

#include <cstdint>
#include <functional>
#include <string>

#include "support/ScriptedServer.h"

namespace http2 {

constexpr uint32_t kNoError = 0;
constexpr uint32_t kInternalError = 2;
constexpr uint32_t kRefusedStream = 7;

// Frames.
std::string okHead(uint32_t stream);  // status 200, without the end of the stream
std::string body(uint32_t stream, const std::string& text, bool isLast);
std::string resetStream(uint32_t stream, uint32_t error);
std::string goAway(uint32_t lastStream, uint32_t error);

// Handshakes, then calls `respond` for each complete request. Closes the connection if that returns false.
ScriptedServer::Script answering(std::function<bool(ScriptedServer::Connection& connection, uint32_t stream)> respond);

}  // namespace http2

#endif
