#include "service/Media.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

namespace vexalive {

using nlohmann::json;
using nlohmann::ordered_json;

namespace {

constexpr const char* kOriginKey = "origin";
constexpr const char* kWorkerName = "vexalive-media";
constexpr std::chrono::seconds kOriginPatience(15);
constexpr std::chrono::milliseconds kHandover(300);  // at the origin, a name is free when who publishes it has gone
constexpr std::chrono::milliseconds kPictureAge(250);
constexpr std::chrono::milliseconds kPictureTime(1000);
constexpr int kPictureWidth = 640;

bool isOfRelay(const AcceptedRequest& request) {
    return request.kind == AcceptedRequest::Kind::kAddRelay || request.kind == AcceptedRequest::Kind::kRemoveRelay;
}

// The origin's key is a word, a worker's its kind and its stream id.
std::string relayKey(const std::string& streamId) {
    return "relay " + streamId;
}

std::string mixKey(const std::string& streamId) {
    return "mix " + streamId;
}

std::string keyOf(const AcceptedRequest& request) {
    return isOfRelay(request) ? relayKey(request.streamId) : mixKey(request.streamId);
}

LiveMediaEvent eventOf(LiveMediaEvent::Kind kind, const std::string& key) {
    LiveMediaEvent event;
    event.kind = kind;
    const size_t blank = std::min(key.find(' '), key.size());
    event.subject = key.substr(0, blank);
    event.streamId = blank < key.size() ? key.substr(blank + 1) : "";
    return event;
}

// One line, whatever the texts hold.
std::string asLine(const ordered_json& value) {
    return value.dump(-1, ' ', true, ordered_json::error_handler_t::replace);
}

// Empty if it is malformed.
std::string fromBase64(const std::string& text) {
    std::string bytes(text.size() / 4 * 3, '\0');
    const int size =
        EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                        reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
    const auto padding = static_cast<size_t>(
        std::count(text.end() - std::min<std::ptrdiff_t>(2, text.end() - text.begin()), text.end(), '='));
    bytes.resize(size < static_cast<int>(padding) ? 0 : static_cast<size_t>(size) - padding);
    return bytes;
}

std::string ownFolder() {
    std::error_code failure;
    return std::filesystem::read_symlink("/proc/self/exe", failure).parent_path().string();
}

// The value of the first parameter of that name.
std::string formValue(const std::string& form, const std::string& name) {
    const std::string whole = "&" + form;
    const size_t start = whole.find("&" + name + "=");
    if (start == std::string::npos) {
        return "";
    }
    const size_t value = start + name.size() + 2;
    return whole.substr(value, whole.find('&', value) - value);
}

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return text;
}

// One name for this machine, which has several.
std::string plainHost(const std::string& host) {
    const std::string name = lowerCase(host);
    return name == "localhost" || name == "::1" || name == "0.0.0.0" ? "127.0.0.1" : name;
}

}  // namespace

std::string flawOf(const std::string& destination, const OriginAddress& origin) {
    const std::string start = "rtmp://";
    if (destination.compare(0, start.size(), start) != 0) {
        return "the scheme " + excerpt(destination.substr(0, destination.find("://")));  // the rest may hold a key
    }
    const size_t hostEnd = std::min(destination.find_first_of("/?", start.size()), destination.size());
    const std::string place = destination.substr(start.size(), hostEnd - start.size());
    const std::optional<OriginAddress> target = readOriginAddress(start + place.substr(place.rfind('@') + 1));
    if (!target) {
        return "no host, or a port that is none";
    }
    const std::string path = destination.substr(hostEnd, destination.find('?', hostEnd) - hostEnd);
    const size_t mark = path.rfind('/');
    if (mark == std::string::npos || mark <= 1 || path[1] == '/' || mark + 1 == path.size()) {
        return "no application, or no name of a stream behind it";
    }
    const std::string application = path.substr(1, path.find('/', 1) - 1);
    const bool isOrigin = plainHost(target->host) == plainHost(origin.host) && target->port == origin.port;
    return isOrigin && (application == "live" || application == "mix") ? "the origin's own \"" + application + "\""
                                                                       : "";
}

std::string relayConfiguration(const AcceptedRequest& request, const std::string& origin) {
    return asLine(
        {{"relay", {{"source", origin + "/live/" + request.streamId}, {"destination", request.destination}}}});
}

std::string mixConfiguration(const AcceptedRequest& request, const std::string& origin) {
    ordered_json canvas;
    if (request.canvas) {
        canvas = {
            {"width", request.canvas->width}, {"height", request.canvas->height}, {"color", request.canvas->color}};
    }
    ordered_json inputs = ordered_json::array();
    for (const MixInput& input : request.inputs) {
        inputs.push_back({{"stream_id", input.streamId},
                          {"source", origin + "/live/" + input.streamId},
                          {"audio_only", input.isAudio},
                          {"layer", input.layer},
                          {"x", input.x},
                          {"y", input.y},
                          {"width", input.width},
                          {"height", input.height}});
    }
    ordered_json output = ordered_json::object();
    for (const auto& [key, value] : request.output) {
        output[key] = value;
    }
    return asLine({{"mix",
                    {{"destination", origin + "/mix/" + request.streamId},
                     {"crop_center", request.cropsCenter},
                     {"canvas", canvas},
                     {"inputs", inputs},
                     {"output", output}}}});
}

std::string judgePublish(const std::string& form, std::string& streamId) {
    streamId = formValue(form, "name");  // a stream id has nothing that would be encoded
    if (isStreamId(streamId)) {
        return "";
    }
    return "found " + excerpt(streamId) +
           " as the name of the stream, must be a member's stream id: the biz id, \"_\" and 32 lower-case hex digits";
}

// ---- Starting and stopping ------------------------------------------------------------------------------------------

Media::Media(const LiveServiceOptions& options)
    : mOptions(options),
      mSupervisor({[this](const std::string& key, const WorkerStatus& status) { hearState(key, status); },
                   [this](const std::string& key, const std::string& line) { hearLine(key, line); },
                   [this](const std::string& key, const json& answer) { hearAnswer(key, answer); }}) {}

Media::~Media() {
    stop();
}

bool Media::prepare(std::string& error) {
    if (!findWorker(error)) {
        return false;
    }
    OriginAddress address;
    if (!mOptions.origin.empty()) {
        const std::optional<OriginAddress> given = readOriginAddress(mOptions.origin);
        if (!given) {
            error = "the origin is " + excerpt(mOptions.origin) + ", must be rtmp://HOST or rtmp://HOST:PORT";
            return false;
        }
        address = *given;
    } else if (mOptions.stateFolder.empty()) {
        error = "no folder for the origin: neither XDG_STATE_HOME nor HOME is set";
        return false;
    } else if (!mOrigin.prepare(mOptions.stateFolder, error)) {
        return false;
    } else {
        address = mOrigin.address();
    }
    KstMutexLock lock(mMutex);
    mAddress = address;
    mElsewhere = {};
    return true;
}

bool Media::findWorker(std::string& error) {
    mWorker = mOptions.workerProgram;
    if (mWorker.empty()) {
        const std::string here = ownFolder();
        mWorker = findProgram(kWorkerName, here + ":" + here + "/../libexec/vexalive");
    }
    if (mWorker.empty()) {
        error = std::string("media needs the program ") + kWorkerName +
                ", which is neither beside this one nor in ../libexec/vexalive nor in PATH: it is built with this one "
                "where GStreamer's development packages are installed";
        return false;
    }
    if (::access(mWorker.c_str(), X_OK) != 0) {
        error = "cannot run " + mWorker + ": " + std::generic_category().message(errno);
        return false;
    }
    return true;
}

bool Media::start(uint16_t consolePort, const std::vector<AcceptedRequest>& running, std::string& error) {
    if (!mSupervisor.start(error)) {
        return false;
    }
    if (mOptions.origin.empty()) {
        if (!mOrigin.configure(consolePort, error)) {
            return false;
        }
        error = mSupervisor.want(kOriginKey, {mOrigin.arguments(), kOriginPatience, SIGTERM}, "");
        if (!error.empty()) {
            return false;
        }
    }
    const std::vector<SocketAddress> addresses = findAddresses(address(), error);
    if (addresses.empty()) {
        return false;
    }
    mWatch.start(address().url, addresses, [this](const OriginLook& seen) { hearOrigin(seen); });
    for (const AcceptedRequest& request : running) {
        if (const std::optional<Refusal> refusal = begin(request)) {
            hearLine(keyOf(request), refusal->message);
        }
    }
    return true;
}

void Media::endWaits() {
    KstMutexLock lock(mMutex);
    mCarriedOut.clear();
    mPictureCame.notifyAll();
}

void Media::stop() {
    endWaits();
    mWatch.stop();
    mSupervisor.stop();
    mOrigin.release();
}

OriginAddress Media::address() const {
    KstMutexLock lock(mMutex);
    return mAddress;
}

// ---- Wishes ---------------------------------------------------------------------------------------------------------

std::optional<Refusal> Media::begin(const AcceptedRequest& request) {
    const bool isRelay = isOfRelay(request);
    const OriginAddress origin = address();
    const std::string flaw = isRelay ? flawOf(request.destination, origin) : "";
    if (!flaw.empty()) {
        return Refusal{Refusal::kUnsupported, "dest_stream_url",
                       "dest_stream_url: found " + flaw +
                           ", must be an address such as \"rtmp://host/app/stream\": media are relayed over RTMP only, "
                           "and not to where members and mixes publish"};
    }
    const std::string key = keyOf(request);
    bool isNew = false;
    bool isFull = false;
    {
        KstMutexLock lock(mMutex);
        isNew = mCarriedOut.try_emplace(key).second;
        isFull = isNew && mCarriedOut.size() > kMaxWorkers;
    }
    std::optional<Refusal> refusal;
    if (isFull) {
        const std::string field = isRelay ? "stream_id" : "session_id";
        refusal = {
            Refusal::kFull, field,
            field + ": " + std::to_string(kMaxWorkers) + " relays and mixes are carried out, the most at a time"};
    } else {
        Supervisor::Program worker{{mWorker, isRelay ? "relay" : "mix"}};
        worker.handover = kHandover;
        const std::string failure = mSupervisor.want(
            key, worker, isRelay ? relayConfiguration(request, origin.url) : mixConfiguration(request, origin.url));
        if (!failure.empty()) {
            refusal = {Refusal::kUnavailable, "", "no worker could be started: " + failure};
        }
    }
    if (refusal && isNew) {
        KstMutexLock lock(mMutex);
        mCarriedOut.erase(key);
    }
    return refusal;
}

void Media::end(const AcceptedRequest& request) {
    const std::string key = keyOf(request);
    mSupervisor.drop(key);
    KstMutexLock lock(mMutex);
    mCarriedOut.erase(key);
    mPictureCame.notifyAll();
}

bool Media::admit(const std::string& form) {
    std::string streamId;
    const std::string reason = judgePublish(form, streamId);
    if (!reason.empty()) {
        LiveMediaEvent event;
        event.kind = LiveMediaEvent::Kind::kRefusedPublish;
        event.subject = kOriginKey;
        event.streamId = streamId;
        event.text = reason;
        tell(std::move(event));
    }
    return reason.empty();
}

// Many may ask at a time: the worker is asked once, and all get what it says.
std::string Media::picture(const std::string& streamId) {
    using Clock = std::chrono::steady_clock;
    const std::string key = mixKey(streamId);
    const Clock::time_point begun = Clock::now();
    const Clock::time_point deadline = begun + kPictureTime;
    KstMutexLock lock(mMutex);
    while (Clock::now() < deadline) {
        const auto found = mCarriedOut.find(key);
        if (found == mCarriedOut.end()) {
            break;
        }
        Picture& picture = found->second;
        if (picture.taken + kPictureAge >= begun) {
            return picture.jpeg;
        }
        if (picture.asked <= picture.taken || picture.asked + kPictureTime < begun) {
            picture.asked = Clock::now();
            mSupervisor.tell(key, asLine({{"snapshot", {{"width", kPictureWidth}}}}));
        }
        mPictureCame.waitUntil(mMutex, deadline);
    }
    return "";
}

// ---- What is heard --------------------------------------------------------------------------------------------------

void Media::tell(LiveMediaEvent event) const {
    if (mOptions.mediaObserver) {
        mOptions.mediaObserver(event);
    }
}

void Media::hearState(const std::string& key, const WorkerStatus& status) {
    LiveMediaEvent event = eventOf(LiveMediaEvent::Kind::kState, key);
    event.state = nameOf(status.numbers.state);
    event.text = status.numbers.error;
    event.restarts = status.restarts;
    tell(std::move(event));
}

void Media::hearLine(const std::string& key, const std::string& line) {
    LiveMediaEvent event = eventOf(LiveMediaEvent::Kind::kLine, key);
    event.text = line;
    tell(std::move(event));
}

void Media::hearAnswer(const std::string& key, const json& answer) {
    const auto snapshot = answer.find("snapshot");
    if (snapshot == answer.end() || !snapshot->is_string()) {
        return;
    }
    KstMutexLock lock(mMutex);
    const auto asked = mCarriedOut.find(key);
    if (asked != mCarriedOut.end()) {
        asked->second.jpeg = fromBase64(snapshot->get<std::string>());
        asked->second.taken = std::chrono::steady_clock::now();
        mPictureCame.notifyAll();
    }
}

// A child of this service's is told of by the supervisor, too, and starts as it says.
void Media::hearOrigin(const OriginLook& seen) {
    const std::string& error = seen.error;
    const std::optional<WorkerStatus> before = originStatus();
    WorkerStatus now;
    now.numbers.error = error;
    const bool wasRunning = before && before->numbers.state != WorkerState::kStarting;
    now.numbers.state = seen.isOwnFault && before ? before->numbers.state
                        : error.empty()           ? WorkerState::kRunning
                        : wasRunning              ? WorkerState::kReconnecting
                                                  : WorkerState::kStarting;
    if (mOptions.origin.empty()) {
        if (error.empty() || (before && before->numbers.state == WorkerState::kRunning)) {
            mSupervisor.note(kOriginKey, now);
        }
        return;
    }
    {
        KstMutexLock lock(mMutex);
        mElsewhere = now;
    }
    if (before->numbers.state != now.numbers.state || before->numbers.error != error) {
        hearState(kOriginKey, now);
    }
}

std::optional<WorkerStatus> Media::originStatus() const {
    if (mOptions.origin.empty()) {
        return mSupervisor.status(kOriginKey);
    }
    KstMutexLock lock(mMutex);
    return mElsewhere;
}

// ---- What is shown --------------------------------------------------------------------------------------------------

void Media::addTo(ordered_json& state) const {
    const std::string origin = address().url;
    WorkerStatus status;
    status.numbers.state = WorkerState::kStopped;
    status = originStatus().value_or(status);
    state["service"] = {{"media", true},
                        {"origin",
                         {{"address", origin},
                          {"state", nameOf(status.numbers.state)},
                          {"error", status.numbers.error},
                          {"restarts", status.restarts}}}};
    const auto statusOf = [this](const std::string& key) {
        WorkerStatus gone;
        gone.numbers.state = WorkerState::kStopped;
        return showStatus(mSupervisor.status(key).value_or(gone));
    };
    const std::string live = origin + "/live/";
    for (ordered_json& relay : state["relays"]) {
        const std::string streamId = relay["stream_id"];
        relay["source"] = live + streamId;
        relay["media"] = statusOf(relayKey(streamId));
    }
    const std::string mixed = origin + "/mix/";
    for (ordered_json& mix : state["mixes"]) {
        const std::string streamId = mix["output_stream_id"];
        mix["play"] = mixed + streamId;
        mix["media"] = statusOf(mixKey(streamId));
    }
}

}  // namespace vexalive
