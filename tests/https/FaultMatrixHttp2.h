// The parts of an HTTP/2 server that the faults need.

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

// Encoded frames.
std::string okHeaders(uint32_t stream);  // status 200, without END_STREAM
std::string data(uint32_t stream, const std::string& text, bool isLast);
std::string resetStream(uint32_t stream, uint32_t error);
std::string goAway(uint32_t lastStream, uint32_t error);

// Performs the handshake, then calls `respond` for each complete request. Closes the connection if it returns false.
ScriptedServer::Script onEachRequest(
    std::function<bool(ScriptedServer::Connection& connection, uint32_t stream)> respond);

}  // namespace http2

#endif
