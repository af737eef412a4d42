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

constexpr int kWakePollMilliseconds = 60000;
constexpr int kBlindPollMilliseconds = 20;  // where no wake-up is to be had
constexpr long kConcurrentStreams = 1000;
constexpr size_t kFirstStreams = 100;  // at most, on an HTTP/2 connection whose server has not told its settings yet
constexpr int kHeldBackPollMilliseconds = 50;  // while some wait for the first answer, which may not come
constexpr size_t kSpareExchanges = 8;          // kept for requests to come

// ---- Options: free until the engine takes them ----------------------------------------------------------------------

struct SharedOptions {
    KstMutex mutex;
    HttpOptions options KST_GUARDED_BY(mutex);
    bool taken KST_GUARDED_BY(mutex) = false;
};

SharedOptions& sharedOptions() {
    static auto& options = *new SharedOptions();
    return options;
}

HttpOptions takeOptions() {
    SharedOptions& shared = sharedOptions();
    KstMutexLock lock(shared.mutex);
    shared.taken = true;
    HttpOptions options = shared.options;
    if (options.caFile.empty()) {
        const char* file = std::getenv("VEXALIVE_CA_FILE");
        options.caFile = file ? file : "";
    }
    return options;
}

bool isTimeout(std::chrono::milliseconds time) {
    return time >= std::chrono::milliseconds(1) && time <= std::chrono::hours(1);
}

// ---- What came back, as the contract's return code ------------------------------------------------------------------

int returnCodeOfStatus(long status) {
    if (status >= 200 && status <= 299) {
        return CVexaHttpSendRecv::kAnswered;
    }
    for (const long passing : {408, 425, 429, 500, 502, 503, 504}) {
        if (status == passing) {
            return CVexaHttpSendRecv::kTryAgain;
        }
    }
    return status >= 100 && status <= 999 ? static_cast<int>(status)
                                          : CVexaHttpSendRecv::kLibraryBase + CURLE_WEIRD_SERVER_REPLY;
}

// `detail` is the library's own text, the one place that tells a handshake cut off from one refused: a refusal names
// OpenSSL's reason.
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
            return CVexaHttpSendRecv::kTryAgain;
        case CURLE_SSL_CONNECT_ERROR:
            if (!std::strstr(detail, "SSL routines") || std::strstr(detail, "unexpected eof")) {
                return CVexaHttpSendRecv::kTryAgain;
            }
            [[fallthrough]];
        default:
            return CVexaHttpSendRecv::kLibraryBase + result;
    }
}

// Whether authorities that could not be read a moment ago can be read now, or lack nothing but a descriptor.
bool lackedDescriptor(const std::string& caFile) {
    const char* file = caFile.empty() ? curl_version_info(CURLVERSION_NOW)->cainfo : caFile.c_str();
    const std::unique_ptr<X509_STORE, decltype(&X509_STORE_free)> store(X509_STORE_new(), &X509_STORE_free);
    errno = 0;
    const bool isRead = file && store && X509_STORE_load_file(store.get(), file) == 1;
    const bool lacksDescriptor = errno == EMFILE || errno == ENFILE;
    ERR_clear_error();
    return isRead || lacksDescriptor;
}

// A readable answer in place of the one that never came: the adapter retries what it cannot read. Shows no address.
std::string describe(CURLcode result) {
    json::Object answer;
    answer["transportError"] = curl_easy_strerror(result);
    return json::Serialize(std::move(answer));
}

// During the I/O: signals of the host are handled by its own threads; a write to a connection that is gone raises
// SIGPIPE here.
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
        sigset_t raisedHere;
        sigemptyset(&raisedHere);
        sigaddset(&raisedHere, SIGPIPE);
        const timespec atOnce{};
        sigtimedwait(&raisedHere, nullptr, &atOnce);  // or it would end the host when it is let in again
        pthread_sigmask(SIG_SETMASK, &mBefore, nullptr);
    }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

private:
    sigset_t mBefore{};
};

}  // namespace

bool setHttpOptions(const HttpOptions& options) {
    if (!isTimeout(options.connectTimeout) || !isTimeout(options.totalTimeout) || options.maxAnswerBytes < 1 ||
        options.maxAnswerBytes > size_t{1} << 30) {
        return false;
    }
    SharedOptions& shared = sharedOptions();
    KstMutexLock lock(shared.mutex);
    if (shared.taken) {
        return false;
    }
    shared.options = options;
    return true;
}

// ---- One request ----------------------------------------------------------------------------------------------------

// One at a time, with the library's handle for it.
struct HttpEngine::Exchange {
    CURL* handle = nullptr;
    size_t limit = 0;
    std::unique_ptr<OutgoingRequest> request;
    std::vector<uint8_t> received;
    bool overLimit = false;
    bool headEnded = false;
    char detail[CURL_ERROR_SIZE] = {};

    Exchange() = default;
    ~Exchange() { curl_easy_cleanup(handle); }
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    void clear() {
        request.reset();
        received = {};
        overLimit = headEnded = false;
        detail[0] = '\0';
    }

    // Looks for the empty line: the library takes a head cut off for a whole one.
    static size_t receiveHead(char* data, size_t, size_t size, void* exchange) {
        const std::string_view line(data, size);
        auto& self = *static_cast<Exchange*>(exchange);
        self.headEnded = line == "\r\n" || line == "\n" || (self.headEnded && line.substr(0, 5) != "HTTP/");
        return size;
    }

    static size_t receive(char* data, size_t, size_t size, void* exchange) {
        auto& self = *static_cast<Exchange*>(exchange);
        if (size > self.limit - self.received.size()) {
            self.overLimit = true;
            return 0;
        }
        self.received.insert(self.received.end(), data, data + size);
        return size;
    }
};

// ---- Starting, sending, leaving -------------------------------------------------------------------------------------

// A request may be the first while another thread already ends the process: whoever comes first, the engine's start or
// the process's end, has the other wait.
namespace {

KstMutex startMutex;
std::atomic<HttpEngine*> startedEngine{nullptr};
bool processLeaves KST_GUARDED_BY(startMutex) = false;

// Runs at exit even if no request was ever sent, and so late that nothing is started after it.
[[maybe_unused]] const int registered = std::atexit(&HttpEngine::leave);

}  // namespace

HttpEngine* HttpEngine::instance() {
    HttpEngine* engine = startedEngine;
    if (engine) {
        return engine;
    }
    KstMutexLock lock(startMutex);
    if (!startedEngine && !processLeaves) {
        startedEngine = new HttpEngine();
        std::atexit(&leave);  // once more, to run before what was there earlier is destroyed
    }
    return startedEngine;
}

void HttpEngine::leave() {
    KstMutexLock lock(startMutex);
    processLeaves = true;
    if (startedEngine) {
        startedEngine.load()->stop();
    }
}

HttpEngine::HttpEngine() noexcept : mOptions(takeOptions()), mThreads([this] { doIo(); }) {
    initialiseOpenSsl();
    curl_global_init(CURL_GLOBAL_ALL);
    leaveOpenSsl();
    mMulti = curl_multi_init();
    curl_multi_setopt(mMulti, CURLMOPT_MAX_CONCURRENT_STREAMS, kConcurrentStreams);
    mShare = curl_share_init();
    curl_share_setopt(mShare, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);  // used by one thread: needs no locks
    mHeaders = curl_slist_append(mHeaders, "Content-Type: application/json");
    mHeaders = curl_slist_append(mHeaders, "Expect:");  // never waits for a 100
    mPollMilliseconds = curl_multi_wakeup(mMulti) == CURLM_OK ? kWakePollMilliseconds : kBlindPollMilliseconds;
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
    if (isFirst && !mThreads.wantIo()) {
        curl_multi_wakeup(mMulti);
    }
}

// Requests in flight are dropped.
void HttpEngine::stop() {
    mThreads.leave();
    {
        KstMutexLock lock(mMutex);
        mLeaving = true;
    }
    curl_multi_wakeup(mMulti);
    mThreads.waitForIo();
    // What is under way is dropped unheard; a thread of the library's that asked a name server for it is let go.
    for (Exchange* exchange : mUnderWay) {
        curl_multi_remove_handle(mMulti, exchange->handle);
        curl_easy_cleanup(std::exchange(exchange->handle, nullptr));
    }
    mSpare.clear();
}

// ---- The I/O --------------------------------------------------------------------------------------------------------

// Until nothing is under way.
void HttpEngine::doIo() {
    const BlockedSignals blocked;
    mIsServerKnown = false;
    mIoBegan = std::chrono::steady_clock::now();
    while (takeRequests()) {
        int running = 0;
        curl_multi_perform(mMulti, &running);
        collectFinished();
        if (mUnderWay.empty() && mHeldBack.empty()) {
            return;
        }
        mThreads.tell();
        if (!mHeldBack.empty() && mayBegin()) {
            continue;
        }
        const int pollMilliseconds = mHeldBack.empty() ? mPollMilliseconds : kHeldBackPollMilliseconds;
        if (curl_multi_poll(mMulti, nullptr, 0, pollMilliseconds, nullptr) != CURLM_OK) {
            std::this_thread::sleep_for(std::chrono::milliseconds(kBlindPollMilliseconds));
        }
    }
}

// False if the process leaves.
bool HttpEngine::takeRequests() {
    std::vector<std::unique_ptr<OutgoingRequest>> requests;
    {
        KstMutexLock lock(mMutex);
        if (mLeaving) {
            return false;
        }
        requests.swap(mInbox);
    }
    while (!mHeldBack.empty() && mayBegin()) {
        begin(std::move(mHeldBack.front()));
        mHeldBack.pop_front();
    }
    for (auto& request : requests) {
        if (mHeldBack.empty() && mayBegin()) {
            begin(std::move(request));
        } else {
            mHeldBack.push_back(std::move(request));
        }
    }
    return true;
}

// Where many requests come before there is a connection, the library opens one more for each that the first does not
// take. So they wait for the first answer, which tells how many it takes; but no longer than for the connection.
bool HttpEngine::mayBegin() const {
    return mUnderWay.size() < kFirstStreams || mIsServerKnown ||
           std::chrono::steady_clock::now() - mIoBegan > mOptions.connectTimeout;
}

void HttpEngine::begin(std::unique_ptr<OutgoingRequest> request) {
    std::unique_ptr<Exchange> exchange = takeExchange();
    exchange->request = std::move(request);
    CURL* handle = exchange->handle;
    if (!handle) {
        end(std::move(exchange), CURLE_FAILED_INIT);
        return;
    }
    if (exchange->request->url.find('\0') != std::string::npos) {
        end(std::move(exchange), CURLE_URL_MALFORMAT);
        return;
    }
    const KstCopyOnWriteBuffer& body = exchange->request->body;
    curl_easy_setopt(handle, CURLOPT_URL, exchange->request->url.c_str());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.size() == 0 ? "" : reinterpret_cast<const char*>(body.cdata()));
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    distrustOldConnections(handle);
    if (curl_multi_add_handle(mMulti, handle) != CURLM_OK) {
        end(std::move(exchange), CURLE_FAILED_INIT);
        return;
    }
    mUnderWay.insert(exchange.release());  // comes back in collectFinished
}

// One whose last request was answered, or a new one. After a failure none is used again: its handle would carry over
// what the library remembers of it.
std::unique_ptr<HttpEngine::Exchange> HttpEngine::takeExchange() {
    if (mSpare.empty()) {
        return makeExchange();
    }
    std::unique_ptr<Exchange> exchange = std::move(mSpare.back());
    mSpare.pop_back();
    return exchange;
}

std::unique_ptr<HttpEngine::Exchange> HttpEngine::makeExchange() {
    auto exchange = std::make_unique<Exchange>();
    exchange->limit = mOptions.maxAnswerBytes;
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
    curl_easy_setopt(handle, CURLOPT_PIPEWAIT, 1L);    // rather share a connection than open another
    curl_easy_setopt(handle, CURLOPT_QUICK_EXIT, 1L);  // a name server that is silent holds up nobody else
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(mOptions.connectTimeout.count()));
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(mOptions.totalTimeout.count()));
    curl_easy_setopt(handle, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(mOptions.maxAnswerBytes));
    curl_easy_setopt(handle, CURLOPT_USERAGENT, "vexalive/" VEXALIVE_VERSION);
    curl_easy_setopt(handle, CURLOPT_POST, 1L);
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, mHeaders);
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &Exchange::receiveHead);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &Exchange::receive);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, exchange.get());
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, exchange.get());
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, exchange->detail);
    curl_easy_setopt(handle, CURLOPT_PRIVATE, exchange.get());
    return exchange;
}

// A time-out ends a request, but not the connection that it shared, which may be dead: over HTTP/2 every other try
// would go down the same one. So nothing older than the last time-out is used again, and for a while nothing is shared.
void HttpEngine::distrustOldConnections(CURL* handle) const {
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
        const CURLcode result = message->data.result;  // the message goes with the handle
        CURL* handle = message->easy_handle;
        Exchange* exchange = nullptr;
        curl_easy_getinfo(handle, CURLINFO_PRIVATE, &exchange);
        curl_multi_remove_handle(mMulti, handle);
        mUnderWay.erase(exchange);
        end(std::unique_ptr<Exchange>(exchange), result);
    }
}

void HttpEngine::end(std::unique_ptr<Exchange> exchange, CURLcode result) {
    if (exchange->overLimit) {
        result = CURLE_FILESIZE_EXCEEDED;
    } else if (result == CURLE_OK && !exchange->headEnded) {
        result = CURLE_GOT_NOTHING;
    } else if (result == CURLE_SSL_CACERT_BADFILE && lackedDescriptor(mOptions.caFile)) {
        result = CURLE_COULDNT_CONNECT;
    }
    Answer answer = std::move(exchange->request->answer);
    if (result == CURLE_OK) {
        long status = 0;
        curl_easy_getinfo(exchange->handle, CURLINFO_RESPONSE_CODE, &status);
        answer.exchange.httpStatus = static_cast<int>(status);
        answer.retCode = returnCodeOfStatus(status);
        mIsServerKnown = true;
    } else {
        answer.retCode = returnCodeOfFailure(result, exchange->detail);
    }
    if (answer.retCode >= CVexaHttpSendRecv::kLibraryBase) {
        const std::string text = describe(result == CURLE_OK ? CURLE_WEIRD_SERVER_REPLY : result);
        answer.response = KstCopyOnWriteBuffer(reinterpret_cast<const uint8_t*>(text.data()), text.size());
    } else {
        answer.response = KstCopyOnWriteBuffer(exchange->received.data(), exchange->received.size());
    }
    answer.exchange.elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                                    exchange->request->started);
    if (result == CURLE_OPERATION_TIMEDOUT) {
        mLastTimeout = std::chrono::steady_clock::now();
    }
    const std::shared_ptr<AnswerQueue> answers = std::move(exchange->request->answers);
    if (answer.retCode == CVexaHttpSendRecv::kAnswered && mSpare.size() < kSpareExchanges) {
        exchange->clear();
        mSpare.push_back(std::move(exchange));
    } else {
        exchange.reset();
    }
    answers->push(std::move(answer), mThreads);
}

}  // namespace vexalive
