#include "FaultMatrixHttp2.h"

#include <utility>

namespace http2 {
namespace {

enum Type : uint8_t { kData = 0, kHeaders = 1, kResetStream = 3, kSettings = 4, kGoAway = 7 };
constexpr uint8_t kEndStream = 1;
constexpr uint8_t kAcknowledged = 1;
constexpr uint8_t kEndHeaders = 4;
constexpr size_t kPrefaceSize = 24;
constexpr size_t kFrameHeaderSize = 9;

std::string bigEndian(uint32_t number, int bytes) {
    std::string text;
    while (bytes-- > 0) {
        text += static_cast<char>(number >> (8 * bytes));
    }
    return text;
}

uint32_t numberAt(const std::string& bytes, size_t from, size_t count) {
    uint32_t number = 0;
    for (size_t i = from; i < from + count; ++i) {
        number = number << 8 | static_cast<uint8_t>(bytes[i]);
    }
    return number;
}

std::string frame(Type type, uint8_t flags, uint32_t stream, const std::string& payload) {
    return bigEndian(static_cast<uint32_t>(payload.size()), 3) + bigEndian(type, 1) + bigEndian(flags, 1) +
           bigEndian(stream, 4) + payload;
}

}  // namespace

std::string okHeaders(uint32_t stream) {
    return frame(kHeaders, kEndHeaders, stream, "\x88");  // ":status: 200" of the static table
}

std::string data(uint32_t stream, const std::string& text, bool isLast) {
    return frame(kData, isLast ? kEndStream : 0, stream, text);
}

std::string resetStream(uint32_t stream, uint32_t error) {
    return frame(kResetStream, 0, stream, bigEndian(error, 4));
}

std::string goAway(uint32_t lastStream, uint32_t error) {
    return frame(kGoAway, 0, 0, bigEndian(lastStream, 4) + bigEndian(error, 4));
}

ScriptedServer::Script onEachRequest(std::function<bool(ScriptedServer::Connection&, uint32_t)> respond) {
    return [respond = std::move(respond)](ScriptedServer::Connection& connection) {
        if (!connection.handshake()) {
            return;
        }
        connection.write(frame(kSettings, 0, 0, ""));
        std::string bytes;
        size_t at = kPrefaceSize;
        for (;;) {
            while (bytes.size() < at + kFrameHeaderSize ||
                   bytes.size() < at + kFrameHeaderSize + numberAt(bytes, at, 3)) {
                const std::string more = connection.read();
                if (more.empty()) {
                    return;
                }
                bytes += more;
            }
            const auto type = static_cast<uint8_t>(bytes[at + 3]);
            const auto flags = static_cast<uint8_t>(bytes[at + 4]);
            const uint32_t stream = numberAt(bytes, at + 5, 4);
            at += kFrameHeaderSize + numberAt(bytes, at, 3);
            if (type == kSettings && !(flags & kAcknowledged)) {
                connection.write(frame(kSettings, kAcknowledged, 0, ""));
            } else if ((type == kData || type == kHeaders) && (flags & kEndStream) && !respond(connection, stream)) {
                return;
            }
        }
    };
}

}  // namespace http2
