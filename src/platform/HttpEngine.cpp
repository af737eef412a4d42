#include "platform/HttpEngine.h"

#include <openssl/err.h>
#include <openssl/x509_vfy.h>
#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

#include "base/CVexaHttpSendRecv.h"
#include "base/Json.h"
#include "platform/OpenSsl.h"

namespace vexalive {
namespace {

constexpr int kWakePollMilliseconds = 60000;   // maximum wait if curl_multi_wakeup() can end it
constexpr int kFallbackPollMilliseconds = 20;  // maximum wait if curl_multi_wakeup() is not available
constexpr long kMaxStreams = 1000;             // libcurl's limit for an HTTP/2 connection
constexpr size_t kInitialStreams = 100;        // libcurl's limit before the server's SETTINGS frame arrives
constexpr int kPendingPollMilliseconds = 50;   // maximum wait while requests are pending
constexpr size_t kMaxPooledExchanges = 8;

// ---- Options: writable until the engine starts ----------------------------------------------------------------------

struct SharedOptions {
    KstMutex mutex;
    HttpOptions options KST_GUARDED_BY(mutex);
    bool frozen KST_GUARDED_BY(mutex) = false;
};

SharedOptions& sharedOptions() {
    static auto& options = *new SharedOptions();
    return options;
}

HttpOptions freezeOptions() {
    SharedOptions& shared = sharedOptions();
    KstMutexLock lock(shared.mutex);
    shared.frozen = true;
    HttpOptions options = shared.options;
    if (options.caFile.empty()) {
        const char* file = std::getenv("VEXALIVE_CA_FILE");
        options.caFile = file ? file : "";
    }
    return options;
}

bool isValidTimeout(std::chrono::milliseconds time) {
    return time >= std::chrono::milliseconds(1) && time <= std::chrono::hours(1);
}

// ---- Return codes ---------------------------------------------------------------------------------------------------

int returnCodeOfStatus(long status) {
    if (status >= 200 && status <= 299) {
        return CVexaHttpSendRecv::kSuccess;
    }
    for (const long temporary : {408, 425, 429, 500, 502, 503, 504}) {
        if (status == temporary) {
            return CVexaHttpSendRecv::kRetryable;
        }
    }
    return status >= 100 && status <= 999 ? static_cast<int>(status)
                                          : CVexaHttpSendRecv::kTransportErrorBase + CURLE_WEIRD_SERVER_REPLY;
}

// `detail` is libcurl's error string. Only this string distinguishes a TLS handshake that was cut off (retryable) from
// a handshake that OpenSSL refused: a refusal contains OpenSSL's reason.
int returnCodeOfFailure(CURLcode result, const char* detail) {
    switch (result) {
        case CURLE_COULDNT_RESOLVE_PROXY:
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_CONNECT:
        case CURLE_OPERATION_TIMEDOUT:
        case CURLE_PARTIAL_FILE:
        case CURLE_GOT_NOTHING:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_HTTP2:
        case CURLE_HTTP2_STREAM:
            return CVexaHttpSendRecv::kRetryable;
        case CURLE_SSL_CONNECT_ERROR:
            if (!std::strstr(detail, "SSL routines") || std::strstr(detail, "unexpected eof")) {
                return CVexaHttpSendRecv::kRetryable;
            }
            [[fallthrough]];
        default:
            return CVexaHttpSendRecv::kTransportErrorBase + result;
    }
}

// Whether libcurl failed to read the CA file only because the process had no free descriptor. Reads the file again: it
// is now readable, or the process still has no free descriptor.
bool isDescriptorShortage(const std::string& caFile) {
    const char* file = caFile.empty() ? curl_version_info(CURLVERSION_NOW)->cainfo : caFile.c_str();
    const std::unique_ptr<X509_STORE, decltype(&X509_STORE_free)> store(X509_STORE_new(), &X509_STORE_free);
    errno = 0;
    const bool isRead = file && store && X509_STORE_load_file(store.get(), file) == 1;
    const bool lacksDescriptor = errno == EMFILE || errno == ENFILE;
    ERR_clear_error();
    return isRead || lacksDescriptor;
}

// The response of an exchange that failed permanently. It is JSON, since the adapter would retry an unreadable
// response. It does not contain the URL.
std::string describe(CURLcode result) {
    json::Object response;
    response["transportError"] = curl_easy_strerror(result);
    return json::Serialize(std::move(response));
}

// Blocks signals on the I/O thread. The host's threads handle the host's signals. A write to a closed connection raises
// SIGPIPE on this thread; the destructor discards it.
class BlockedSignals {
public:
    BlockedSignals() {
        sigset_t signals;
        sigfillset(&signals);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT}) {
            sigdelset(&signals, fault);
        }
        pthread_sigmask(SIG_SETMASK, &signals, &mBefore);
    }
    ~BlockedSignals() {
        sigset_t pending;
        sigemptyset(&pending);
        sigaddset(&pending, SIGPIPE);
        const timespec noWait{};
        sigtimedwait(&pending, nullptr, &noWait);
        pthread_sigmask(SIG_SETMASK, &mBefore, nullptr);
    }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

private:
    sigset_t mBefore{};
};

}  // namespace

bool setHttpOptions(const HttpOptions& options) {
    if (!isValidTimeout(options.connectTimeout) || !isValidTimeout(options.totalTimeout) ||
        options.maxResponseBytes < 1 || options.maxResponseBytes > size_t{1} << 30) {
        return false;
    }
    SharedOptions& shared = sharedOptions();
    KstMutexLock lock(shared.mutex);
    if (shared.frozen) {
        return false;
    }
    shared.options = options;
    return true;
}

// ---- One exchange ---------------------------------------------------------------------------------------------------

// A libcurl easy handle and the request that it currently carries. Reused for one request after another.
struct HttpEngine::Exchange {
    CURL* handle = nullptr;
    size_t limit = 0;
    std::unique_ptr<OutgoingRequest> request;
    std::vector<uint8_t> received;
    bool isOverLimit = false;
    bool isHeadComplete = false;
    char detail[CURL_ERROR_SIZE] = {};

    Exchange() = default;
    ~Exchange() { curl_easy_cleanup(handle); }
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    void clear() {
        request.reset();
        received = {};
        isOverLimit = isHeadComplete = false;
        detail[0] = '\0';
    }

    // Detects the empty line that ends the response's head. Without it, the head is truncated; libcurl accepts that.
    static size_t onHeader(char* data, size_t, size_t size, void* exchange) {
        const std::string_view line(data, size);
        auto& self = *static_cast<Exchange*>(exchange);
        self.isHeadComplete = line == "\r\n" || line == "\n" || (self.isHeadComplete && line.substr(0, 5) != "HTTP/");
        return size;
    }

    static size_t onBody(char* data, size_t, size_t size, void* exchange) {
        auto& self = *static_cast<Exchange*>(exchange);
        if (size > self.limit - self.received.size()) {
            self.isOverLimit = true;
            return 0;
        }
        self.received.insert(self.received.end(), data, data + size);
        return size;
    }
};

// ---- Start, send, shut down -----------------------------------------------------------------------------------------

namespace {

// The first request and the exit of the process may race; `startMutex` orders them.
KstMutex startMutex;
std::atomic<HttpEngine*> engineInstance{nullptr};
bool processExiting KST_GUARDED_BY(startMutex) = false;

// Registered before main(), so this exit handler runs last. After it, no request can start the engine.
[[maybe_unused]] const int registered = std::atexit(&HttpEngine::shutDown);

}  // namespace

HttpEngine* HttpEngine::instance() {
    HttpEngine* engine = engineInstance;
    if (engine) {
        return engine;
    }
    KstMutexLock lock(startMutex);
    if (!engineInstance && !processExiting) {
        engineInstance = new HttpEngine();
        std::atexit(&shutDown);  // again: this one runs before the objects that exist now are destroyed
    }
    return engineInstance;
}

void HttpEngine::shutDown() {
    KstMutexLock lock(startMutex);
    processExiting = true;
    if (engineInstance) {
        engineInstance.load()->stop();
    }
}

HttpEngine::HttpEngine() noexcept : mOptions(freezeOptions()), mThreads([this] { runIo(); }) {
    initialiseOpenSsl();
    curl_global_init(CURL_GLOBAL_ALL);
    releaseOpenSslThread();
    mMulti = curl_multi_init();
    curl_multi_setopt(mMulti, CURLMOPT_MAX_CONCURRENT_STREAMS, kMaxStreams);
    mShare = curl_share_init();
    curl_share_setopt(mShare, CURLSHOPT_SHARE,
                      CURL_LOCK_DATA_SSL_SESSION);  // used by the I/O thread only: needs no locks
    mHeaders = curl_slist_append(mHeaders, "Content-Type: application/json");
    mHeaders = curl_slist_append(mHeaders, "Expect:");  // do not wait for 100 Continue
    mPollMilliseconds = curl_multi_wakeup(mMulti) == CURLM_OK ? kWakePollMilliseconds : kFallbackPollMilliseconds;
    mThreads.start();
    mThreads.start();
}

void HttpEngine::send(std::unique_ptr<OutgoingRequest> request) {
    bool isFirst = false;
    {
        KstMutexLock lock(mMutex);
        isFirst = mInbox.empty();
        mInbox.push_back(std::move(request));
    }
    if (isFirst && !mThreads.requestIo()) {
        curl_multi_wakeup(mMulti);
    }
}

// Drops the requests in flight.
void HttpEngine::stop() {
    mThreads.shutDown();
    {
        KstMutexLock lock(mMutex);
        mShuttingDown = true;
    }
    curl_multi_wakeup(mMulti);
    mThreads.waitForIo();
    // Dropped exchanges cause no callback. curl_easy_cleanup() detaches libcurl's resolver threads.
    for (Exchange* exchange : mActive) {
        curl_multi_remove_handle(mMulti, exchange->handle);
        curl_easy_cleanup(std::exchange(exchange->handle, nullptr));
    }
    mPool.clear();
}

// ---- The I/O --------------------------------------------------------------------------------------------------------

// Returns when no exchange is active and no request is pending, or when the process exits.
void HttpEngine::runIo() {
    const BlockedSignals blocked;
    mHasResponse = false;
    mIoStarted = std::chrono::steady_clock::now();
    while (startRequests()) {
        int running = 0;
        curl_multi_perform(mMulti, &running);
        collectFinished();
        if (mActive.empty() && mPending.empty()) {
            return;
        }
        mThreads.startDelivery();
        if (!mPending.empty() && canStart()) {
            continue;
        }
        const int pollMilliseconds = mPending.empty() ? mPollMilliseconds : kPendingPollMilliseconds;
        if (curl_multi_poll(mMulti, nullptr, 0, pollMilliseconds, nullptr) != CURLM_OK) {
            std::this_thread::sleep_for(std::chrono::milliseconds(kFallbackPollMilliseconds));
        }
    }
}

// Returns false if the process exits.
bool HttpEngine::startRequests() {
    std::vector<std::unique_ptr<OutgoingRequest>> requests;
    {
        KstMutexLock lock(mMutex);
        if (mShuttingDown) {
            return false;
        }
        requests.swap(mInbox);
    }
    while (!mPending.empty() && canStart()) {
        startExchange(std::move(mPending.front()));
        mPending.pop_front();
    }
    for (auto& request : requests) {
        if (mPending.empty() && canStart()) {
            startExchange(std::move(request));
        } else {
            mPending.push_back(std::move(request));
        }
    }
    return true;
}

// libcurl opens another connection for each request that exceeds the stream limit of the first connection. So requests
// beyond kInitialStreams wait until the first response, when the server's limit is known, but at most connectTimeout.
bool HttpEngine::canStart() const {
    return mActive.size() < kInitialStreams || mHasResponse ||
           std::chrono::steady_clock::now() - mIoStarted > mOptions.connectTimeout;
}

void HttpEngine::startExchange(std::unique_ptr<OutgoingRequest> request) {
    std::unique_ptr<Exchange> exchange = acquireExchange();
    exchange->request = std::move(request);
    CURL* handle = exchange->handle;
    if (!handle) {
        finish(std::move(exchange), CURLE_FAILED_INIT);
        return;
    }
    if (exchange->request->url.find('\0') != std::string::npos) {
        finish(std::move(exchange), CURLE_URL_MALFORMAT);
        return;
    }
    const KstCopyOnWriteBuffer& body = exchange->request->body;
    curl_easy_setopt(handle, CURLOPT_URL, exchange->request->url.c_str());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.size() == 0 ? "" : reinterpret_cast<const char*>(body.cdata()));
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    avoidStaleConnections(handle);
    if (curl_multi_add_handle(mMulti, handle) != CURLM_OK) {
        finish(std::move(exchange), CURLE_FAILED_INIT);
        return;
    }
    mActive.insert(exchange.release());  // collectFinished() takes ownership
}

// A pooled exchange, or a new one. A failed exchange is not pooled, since its handle keeps state of the failure.
std::unique_ptr<HttpEngine::Exchange> HttpEngine::acquireExchange() {
    if (mPool.empty()) {
        return createExchange();
    }
    std::unique_ptr<Exchange> exchange = std::move(mPool.back());
    mPool.pop_back();
    return exchange;
}

std::unique_ptr<HttpEngine::Exchange> HttpEngine::createExchange() {
    auto exchange = std::make_unique<Exchange>();
    exchange->limit = mOptions.maxResponseBytes;
    CURL* handle = exchange->handle = curl_easy_init();
    if (!handle) {
        return exchange;
    }
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(handle, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!mOptions.caFile.empty()) {
        curl_easy_setopt(handle, CURLOPT_CAINFO, mOptions.caFile.c_str());
        curl_easy_setopt(handle, CURLOPT_CAPATH, nullptr);
    }
    curl_easy_setopt(handle, CURLOPT_SHARE, mShare);
    curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    curl_easy_setopt(handle, CURLOPT_PIPEWAIT, 1L);    // wait for a connection to share rather than open another
    curl_easy_setopt(handle, CURLOPT_QUICK_EXIT, 1L);  // do not wait for the resolver on clean-up
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(mOptions.connectTimeout.count()));
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(mOptions.totalTimeout.count()));
    curl_easy_setopt(handle, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(mOptions.maxResponseBytes));
    curl_easy_setopt(handle, CURLOPT_USERAGENT, "vexalive/" VEXALIVE_VERSION);
    curl_easy_setopt(handle, CURLOPT_POST, 1L);
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, mHeaders);
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &Exchange::onHeader);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &Exchange::onBody);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, exchange.get());
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, exchange.get());
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, exchange->detail);
    curl_easy_setopt(handle, CURLOPT_PRIVATE, exchange.get());
    return exchange;
}

// A timeout ends a request but not its HTTP/2 connection. This connection may be dead, and retries would use it again.
// So connections older than the last timeout are not reused, and for totalTimeout after it, no connection is reused.
void HttpEngine::avoidStaleConnections(CURL* handle) const {
    if (mLastTimeout == std::chrono::steady_clock::time_point()) {
        return;
    }
    const auto since = std::chrono::steady_clock::now() - mLastTimeout;
    const auto seconds = static_cast<long>(std::chrono::duration_cast<std::chrono::seconds>(since).count());
    curl_easy_setopt(handle, CURLOPT_MAXLIFETIME_CONN, std::max(1L, seconds));
    curl_easy_setopt(handle, CURLOPT_FRESH_CONNECT, since < mOptions.totalTimeout ? 1L : 0L);
}

void HttpEngine::collectFinished() {
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(mMulti, &left)) {
        if (message->msg != CURLMSG_DONE) {
            continue;
        }
        const CURLcode result = message->data.result;  // removing the handle invalidates `message`
        CURL* handle = message->easy_handle;
        Exchange* exchange = nullptr;
        curl_easy_getinfo(handle, CURLINFO_PRIVATE, &exchange);
        curl_multi_remove_handle(mMulti, handle);
        mActive.erase(exchange);
        finish(std::unique_ptr<Exchange>(exchange), result);
    }
}

void HttpEngine::finish(std::unique_ptr<Exchange> exchange, CURLcode result) {
    if (exchange->isOverLimit) {
        result = CURLE_FILESIZE_EXCEEDED;
    } else if (result == CURLE_OK && !exchange->isHeadComplete) {
        result = CURLE_GOT_NOTHING;
    } else if (result == CURLE_SSL_CACERT_BADFILE && isDescriptorShortage(mOptions.caFile)) {
        result = CURLE_COULDNT_CONNECT;
    }
    Completion completion = std::move(exchange->request->completion);
    if (result == CURLE_OK) {
        long status = 0;
        curl_easy_getinfo(exchange->handle, CURLINFO_RESPONSE_CODE, &status);
        completion.exchange.httpStatus = static_cast<int>(status);
        completion.retCode = returnCodeOfStatus(status);
        mHasResponse = true;
    } else {
        completion.retCode = returnCodeOfFailure(result, exchange->detail);
    }
    if (completion.retCode >= CVexaHttpSendRecv::kTransportErrorBase) {
        const std::string description = describe(result == CURLE_OK ? CURLE_WEIRD_SERVER_REPLY : result);
        completion.response =
            KstCopyOnWriteBuffer(reinterpret_cast<const uint8_t*>(description.data()), description.size());
    } else {
        completion.response = KstCopyOnWriteBuffer(exchange->received.data(), exchange->received.size());
    }
    completion.exchange.elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - exchange->request->started);
    if (result == CURLE_OPERATION_TIMEDOUT) {
        mLastTimeout = std::chrono::steady_clock::now();
    }
    const std::shared_ptr<ResponseQueue> responses = std::move(exchange->request->responses);
    if (completion.retCode == CVexaHttpSendRecv::kSuccess && mPool.size() < kMaxPooledExchanges) {
        exchange->clear();
        mPool.push_back(std::move(exchange));
    } else {
        exchange.reset();
    }
    responses->push(std::move(completion), mThreads);
}

}  // namespace vexalive
