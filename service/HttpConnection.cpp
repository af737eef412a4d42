#include "service/HttpConnection.h"

#include <algorithm>
#include <boost/beast/core/buffers_range.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/serializer.hpp>
#include <boost/beast/http/string_body.hpp>
#include <chrono>
#include <exception>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "common/Result.h"

namespace vexalive {

namespace {

namespace http = boost::beast::http;
using boost::beast::error_code;
using boost::beast::iequals;
using Clock = SocketStream::Clock;
using Parser = http::request_parser<http::string_body>;

constexpr std::chrono::seconds kIdleTimeout(60);     // exceeds the delay between two attempts of a client
constexpr std::chrono::seconds kRequestTimeout(30);  // from the first byte of a request to its end
constexpr size_t kMaxRequests = 100'000;             // on one connection
constexpr size_t kMaxRequestLineBytes = size_t{8} << 10;
constexpr size_t kMaxHeadBytes = size_t{16} << 10;
constexpr size_t kMaxRequestBytes = (size_t{2} << 20) + kMaxHeadBytes;  // head, body, and the framing of chunks
constexpr int kVersion = 11;                                            // HTTP/1.1, as Boost.Beast encodes it
constexpr boost::beast::string_view kMultipart = "multipart/";
constexpr size_t kPaddingBytes = size_t{64} << 10;  // the padding of a response is sent in pieces of this size

// A request that has one of these header fields twice is refused: a proxy could use the first and this server the
// second.
constexpr const char* kSingleFields[] = {"Host",         "Origin",           "Sec-Fetch-Site",   "Content-Length",
                                         "Content-Type", "Content-Encoding", "Transfer-Encoding"};

HttpResponse errorResponse(int status, const std::string& message) {
    HttpResponse response;
    response.status = status;
    response.body = nlohmann::json{{"message", message}}.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    return response;
}

HttpResponse lostConnection() {
    HttpResponse response;
    response.delivery = HttpResponse::Delivery::kClose;
    return response;
}

std::string joinWords(const std::vector<std::string>& words) {
    std::string result;
    for (const std::string& word : words) {
        result += (result.empty() ? "" : ", ") + word;
    }
    return result;
}

class Connection {
public:
    Connection(SocketStream& stream, const HttpServer::Routes& routes, const HttpServer::Handler& handler,
               bool isFromLoopback)
        : mStream(stream), mRoutes(routes), mHandler(handler), mIsFromLoopback(isFromLoopback) {}

    void run() {
        if (!mStream.handshake()) {
            return;
        }
        bool isOpen = true;
        for (size_t left = kMaxRequests; isOpen && left > 0 && awaitRequest(); --left) {
            isOpen = serveRequest(left == 1);
        }
        mStream.finish();
    }

private:
    using ErrorResponse = HttpResponse;

    bool awaitRequest() { return !mStream.received().empty() || mStream.receive(Clock::now() + kIdleTimeout); }

    // Returns false if the connection must be closed after this request.
    bool serveRequest(bool isLast) {
        Parser parser;
        parser.header_limit(kMaxHeadBytes);
        parser.body_limit(HttpServer::kMaxBodyBytes);
        mDeadline = Clock::now() + kRequestTimeout;
        mBytesLeft = kMaxRequestBytes;
        mNeedsMore = false;
        const Result<HttpRequest, ErrorResponse> request = receiveRequest(parser);
        // The connection is closed after an error, since it is then unknown where the next request starts.
        const bool isKeptAlive = request && parser.keep_alive() && !isLast;
        const bool isHead = parser.get().method() == http::verb::head;
        return send(request ? handle(*request) : request.error(), isKeptAlive, !isHead) && isKeptAlive;
    }

    HttpResponse handle(const HttpRequest& request) const {
        try {
            return mHandler(request);
        } catch (const std::exception&) {
            return errorResponse(500, "internal error");
        }
    }

    // ---- Receiving

    Result<HttpRequest, ErrorResponse> receiveRequest(Parser& parser) {
        while (!parser.is_header_done()) {
            if (const auto parsed = parseMore(parser); !parsed) {
                return refuse(parsed.error());
            }
        }
        // The header fields are read before the body: the trailer of a chunked body could add fields.
        Result<HttpRequest, ErrorResponse> request = checkHead(parser.get());
        if (!request) {
            return request;
        }
        if (iequals(parser.get()["Expect"], "100-continue") && !parser.is_done()) {
            mStream.send("HTTP/1.1 100 Continue\r\n\r\n");
        }
        parser.eager(true);
        while (!parser.is_done()) {
            if (const auto parsed = parseMore(parser); !parsed) {
                return refuse(parsed.error());
            }
        }
        request->body = std::move(parser.get().body());
        return request;
    }

    // Parses the received bytes. First receives more if there are none, or if they were too few for the parser.
    Result<void, ErrorResponse> parseMore(Parser& parser) {
        if ((mNeedsMore || mStream.received().empty()) && !mStream.receive(mDeadline)) {
            return refuse(lostConnection());
        }
        const std::string_view received = mStream.received();
        const bool isAtStart = mBytesLeft == kMaxRequestBytes;
        if (isAtStart && received.substr(0, received.find("\r\n")).size() > kMaxRequestLineBytes) {
            return refuse(414, "the request line is longer than " + std::to_string(kMaxRequestLineBytes) + " bytes");
        }
        error_code error;
        const size_t count = parser.put(boost::asio::buffer(received.data(), received.size()), error);
        mStream.consume(count);
        mBytesLeft -= std::min(count, mBytesLeft);
        mNeedsMore = error == http::error::need_more;
        if (error == http::error::body_limit || mStream.received().size() > mBytesLeft) {
            return refuse(413, "the body is longer than " + std::to_string(HttpServer::kMaxBodyBytes) + " bytes");
        }
        if (error && !mNeedsMore) {
            return refuse(400, "malformed HTTP request: " + error.message());
        }
        return {};
    }

    // Checks everything except the body. The body of a refused request is not read.
    Result<HttpRequest, ErrorResponse> checkHead(const Parser::value_type& message) const {
        for (const char* const field : kSingleFields) {
            if (message.count(field) > 1) {
                return refuse(400, "duplicate header field " + std::string(field));
            }
        }
        const auto valueOf = [&message](const char* field) { return std::string(message[field]); };
        const std::string target(message.target());
        const size_t mark = std::min(target.find('?'), target.size());
        HttpRequest request;
        request.method = std::string(message.method_string());
        request.path = target.substr(0, mark);
        request.query = target.substr(std::min(mark + 1, target.size()));
        request.host = valueOf("Host");
        request.origin = valueOf("Origin");
        request.fetchSite = valueOf("Sec-Fetch-Site");
        request.isFromLoopback = mIsFromLoopback;

        if (message.method() == http::verb::unknown) {
            return refuse(400, "unknown HTTP method");
        }
        const auto route = mRoutes.find(request.path);
        if (route == mRoutes.end()) {
            return refuse(404, "there is nothing at this path");
        }
        const std::vector<std::string>& methods = route->second;
        if (std::find(methods.begin(), methods.end(), request.method) == methods.end()) {
            ErrorResponse refused = errorResponse(405, "this path accepts " + joinWords(methods));
            refused.headers["Allow"] = joinWords(methods);
            return refuse(refused);
        }
        const bool hasTransferEncoding = message.count("Transfer-Encoding") > 0;
        if (message.count("Content-Encoding") > 0 ||
            (hasTransferEncoding && !iequals(message["Transfer-Encoding"], "chunked"))) {
            return refuse(415, "encoded bodies are not supported");
        }
        if (iequals(message["Content-Type"].substr(0, kMultipart.size()), kMultipart)) {
            return refuse(415, "multipart bodies are not supported");
        }
        if (message.method() == http::verb::post && !hasTransferEncoding && message.count("Content-Length") == 0) {
            return refuse(411, "Content-Length is missing");
        }
        return request;
    }

    static tl::unexpected<ErrorResponse> refuse(ErrorResponse refused) {
        return tl::unexpected<ErrorResponse>(std::move(refused));
    }
    static tl::unexpected<ErrorResponse> refuse(int status, const std::string& message) {
        return refuse(errorResponse(status, message));
    }

    // ---- Sending

    // Returns false if the connection is broken or must be closed after this response.
    bool send(const HttpResponse& response, bool isKeptAlive, bool hasBody) {
        if (response.delivery == HttpResponse::Delivery::kClose) {
            mStream.abort();
            return false;
        }
        const size_t size = response.body.size() + response.padding + response.tail.size();
        sendHead(response, size, isKeptAlive);
        if (response.delivery == HttpResponse::Delivery::kCut) {
            mStream.send(response.body.substr(0, size / 2));
            mStream.abort();
            return false;
        }
        return !hasBody || sendBody(response);
    }

    void sendHead(const HttpResponse& response, size_t size, bool isKeptAlive) {
        http::response<http::empty_body> message;
        message.version(kVersion);
        message.result(static_cast<unsigned>(response.status));
        for (const auto& [name, value] : response.headers) {
            message.set(name, value);
        }
        if (size > 0) {
            message.set("Content-Type", response.contentType);
        }
        if (response.status != 204) {  // a 204 must not have Content-Length
            message.content_length(size);
        }
        message.keep_alive(isKeptAlive);
        http::response_serializer<http::empty_body> serializer(message);
        error_code error;
        serializer.next(error, [this](error_code&, const auto& buffers) {
            for (const auto buffer : boost::beast::buffers_range_ref(buffers)) {
                mStream.send({static_cast<const char*>(buffer.data()), buffer.size()});
            }
        });
    }

    bool sendBody(const HttpResponse& response) {
        bool isOpen = mStream.send(response.body);
        const std::string piece(std::min(response.padding, kPaddingBytes), 'x');
        for (size_t left = response.padding; isOpen && left > 0;) {
            const size_t count = std::min(left, piece.size());
            isOpen = mStream.send({piece.data(), count});
            left -= count;
        }
        return isOpen && mStream.send(response.tail);
    }

    SocketStream& mStream;
    const HttpServer::Routes& mRoutes;
    const HttpServer::Handler& mHandler;
    const bool mIsFromLoopback;

    // State of the request that is being received.
    Clock::time_point mDeadline;
    size_t mBytesLeft = 0;
    bool mNeedsMore = false;  // the parser needs more bytes than have been received
};

}  // namespace

void serveConnection(SocketStream& stream, const HttpServer::Routes& routes, const HttpServer::Handler& handler,
                     bool isFromLoopback) {
    Connection(stream, routes, handler, isFromLoopback).run();
}

}  // namespace vexalive
