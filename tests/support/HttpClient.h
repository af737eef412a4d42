// An HTTP client for tests, on libcurl.

#ifndef VEXALIVE_TESTS_SUPPORT_HTTP_CLIENT_H
#define VEXALIVE_TESTS_SUPPORT_HTTP_CLIENT_H

#include <map>
#include <memory>
#include <string>
#include <vector>

struct HttpResponse {
    int status = 0;     // 0 if the exchange failed
    std::string error;  // the cause of the failure; empty after a response
    std::map<std::string, std::string> headers;
    std::string body;
};

// For one thread at a time. The client reuses its connection. It repeats a request if the server closes a reused
// connection without a response. The timeout of an exchange is one minute.
class HttpClient {
public:
    // `url`: scheme, host and port. `caFile`: the only certificate authorities that are trusted for HTTPS.
    explicit HttpClient(std::string url, std::string caFile = "");

    HttpResponse send(const std::string& method, const std::string& target, const std::string& body = "",
                      const std::vector<std::string>& headers = {});
    HttpResponse get(const std::string& target) { return send("GET", target); }
    HttpResponse post(const std::string& target, const std::string& body,
                      const std::string& contentType = "application/json") {
        return send("POST", target, body, {"Content-Type: " + contentType});
    }

    // Whether the last exchange reused a connection.
    bool hasReusedConnection() const;

private:
    std::string mUrl;
    std::string mCaFile;
    std::unique_ptr<void, void (*)(void*)> mHandle;
};

#endif
