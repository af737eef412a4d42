// The media behind the service: an origin, and a worker process for each relay and each mix.
//
// Used by LiveService, which hands it what it accepted. Any thread may call any member but start(), prepare() and
// stop(), which are for one thread at a time.

#ifndef VEXALIVE_SERVICE_MEDIA_H
#define VEXALIVE_SERVICE_MEDIA_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "base/Mutex.h"
#include "service/LiveService.h"
#include "service/Origin.h"
#include "service/RequestCheck.h"
#include "service/Supervisor.h"

namespace vexalive {

// A worker's configuration, one line; `origin` is an address without an application.
std::string relayConfiguration(const AcceptedRequest& request, const std::string& origin);
std::string mixConfiguration(const AcceptedRequest& request, const std::string& origin);

// What nginx asks before it lets someone publish, form-encoded. Returns why not; empty if it may be.
std::string judgePublish(const std::string& form, std::string& streamId);

// What keeps media of a member from being relayed to an address: "no host". Empty if nothing does.
std::string flawOf(const std::string& destination, const OriginAddress& origin);

class Media {
public:
    static constexpr size_t kMaxWorkers = 64;

    explicit Media(const LiveServiceOptions& options);  // which outlive it
    ~Media();                                           // stops

    // Finds what is needed. False if something is missing; `error` tells what.
    bool prepare(std::string& error);

    // Starts the origin, and a worker for each of `running`.
    bool start(uint16_t consolePort, const std::vector<AcceptedRequest>& running, std::string& error);
    void endWaits();  // whoever waits for a picture gets none
    void stop();

    // Whether a relay or mix can be carried out; if it can, a worker is at it.
    std::optional<Refusal> begin(const AcceptedRequest& request);
    void end(const AcceptedRequest& request);  // a kRemoveRelay or kCancelMix

    OriginAddress address() const;  // of the origin

    // Adds to the fields of a state what is known of the media.
    void addTo(nlohmann::ordered_json& state) const;

    // The output of the mix as a JPEG, not older than a quarter of a second; empty if there is none.
    std::string picture(const std::string& streamId);

    // Answers nginx: whether the publish may be.
    bool admit(const std::string& form);

private:
    struct Picture {
        std::string jpeg;
        std::chrono::steady_clock::time_point taken;
        std::chrono::steady_clock::time_point asked;
    };

    bool findWorker(std::string& error);
    void hearState(const std::string& key, const WorkerStatus& status);
    void hearLine(const std::string& key, const std::string& line);
    void hearAnswer(const std::string& key, const nlohmann::json& answer);
    void hearOrigin(const OriginLook& seen);
    std::optional<WorkerStatus> originStatus() const;
    void tell(LiveMediaEvent event) const;

    const LiveServiceOptions& mOptions;
    std::string mWorker;  // path
    Origin mOrigin;       // unused if there is one elsewhere

    mutable KstMutex mMutex;
    KstCondition mPictureCame;
    OriginAddress mAddress KST_GUARDED_BY(mMutex);
    WorkerStatus mElsewhere KST_GUARDED_BY(mMutex);                     // of an origin that is not a child
    std::map<std::string, Picture> mCarriedOut KST_GUARDED_BY(mMutex);  // each relay and mix, by its worker's key

    Supervisor mSupervisor;
    OriginWatch mWatch;  // the last: its thread uses all of the above
};

}  // namespace vexalive

#endif
