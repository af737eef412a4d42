#include "support/HttpClient.h"

#include <curl/curl.h>

#include <utility>

namespace {

size_t append(const char* data, size_t size, size_t count, void* body) {
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
}

}  // namespace

HttpClient::HttpClient(std::string url, std::string caFile)
    : mUrl(std::move(url)), mCaFile(std::move(caFile)), mHandle(curl_easy_init(), &curl_easy_cleanup) {}

HttpResponse HttpClient::send(const std::string& method, const std::string& target, const std::string& body,
                              const std::vector<std::string>& headers) {
    CURL* const handle = mHandle.get();
    HttpResponse response;
    // Empty values: otherwise libcurl adds these two headers.
    curl_slist* fields = curl_slist_append(curl_slist_append(nullptr, "Expect:"), "Content-Type:");
    for (const std::string& header : headers) {
        fields = curl_slist_append(fields, header.c_str());
    }
    curl_easy_reset(handle);  // does not close the connection
    curl_easy_setopt(handle, CURLOPT_URL, (mUrl + target).c_str());
    curl_easy_setopt(handle, CURLOPT_PATH_AS_IS, 1L);
    curl_easy_setopt(handle, CURLOPT_CAINFO, mCaFile.c_str());
    curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(handle, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, 60L);
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, fields);
    if (method != "GET") {
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.data());
    }
    curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, method.c_str());
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &append);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &response.body);
    const CURLcode result = curl_easy_perform(handle);
    curl_slist_free_all(fields);
    if (result != CURLE_OK) {
        response.error = curl_easy_strerror(result);
        return response;
    }
    long status = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    response.status = static_cast<int>(status);
    curl_header* header = nullptr;
    while ((header = curl_easy_nextheader(handle, CURLH_HEADER, -1, header)) != nullptr) {
        response.headers[header->name] = header->value;
    }
    return response;
}

bool HttpClient::hasReusedConnection() const {
    long connects = 1;
    curl_easy_getinfo(mHandle.get(), CURLINFO_NUM_CONNECTS, &connects);
    return connects == 0;
}
