// Measures the strings that are built for each request: the body and the description of a mix of 1 to 16 users, and a
// stream id. The reference "handwritten" builds the same strings directly with nlohmann-json and OpenSSL, which are
// also the libraries of the platform.

#include <openssl/evp.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "Benchmark.h"
#include "base/Clock.h"
#include "base/ServiceAddress.h"
#include "support/SampleMix.h"

namespace {

using kstmedia::VexaMixUserInternal;
using kstmedia::VexaTranscodingConfigInternal;
using nlohmann::json;

constexpr int kMixes[] = {1, 2, 4, 8, 16};
constexpr int kLargestMix = 16;
constexpr int kTask = 7;
constexpr int kBatches = 40;
constexpr double kSecondsOfBatch = 0.003;

// ---- By the adapter -------------------------------------------------------------------------------------------------

class ByAdapter {
public:
    explicit ByAdapter(int users) : mMix(users) {}

    std::string mix() {
        const auto timestamp = static_cast<uint32_t>(kstf_gettickcount()) / 1000;
        return vexalive::requests::startMixBody({mMix.config.appId, timestamp, ++mLastEvent}, mMix.sender, mMix.config);
    }
    std::string report() { return vexalive::requests::mixDescription(kTask, mMix.sender, mMix.config); }
    std::string streamId() { return vexalive::requests::streamId(mMix.sender.bizId, "4711", "guest-1", true); }

private:
    const SampleMix mMix;
    std::atomic<int> mLastEvent{1'700'000'000};
};

// ---- Handwritten ----------------------------------------------------------------------------------------------------

class Handwritten {
public:
    explicit Handwritten(int users) : mConfig(SampleMix(users).config) {}

    std::string mix() {
        const std::string session = streamIdOf(mRoomId, "u-bodies", true);

        json output;
        output["output_stream_id"] = session;
        output["output_stream_type"] = 0;
        setIfGiven(output, "output_stream_bitrate", mConfig.videoBitrate);
        setIfGiven(output, "output_stream_gop", mConfig.videoGOP);
        setIfGiven(output, "output_stream_frame_rate", mConfig.videoFramerate);
        setIfGiven(output, "output_audio_sample_rate", mConfig.audioSampleRate);
        setIfGiven(output, "output_audio_bitrate", mConfig.audioBitrate);
        setIfGiven(output, "output_audio_channels", mConfig.audioChannels);
        output["output_sei"] = "{}";

        json inputs = json::array();
        int layer = 1;
        if (!isAudioOnly()) {
            json canvas;
            canvas["image_layer"] = layer++;
            canvas["input_type"] = 3;
            canvas["image_width"] = mConfig.videoWidth;
            canvas["image_height"] = mConfig.videoHeight;
            canvas["location_x"] = 0;
            canvas["location_y"] = 0;
            canvas["color"] = "0x000000";
            inputs.push_back(input("canvas1", std::move(canvas)));
        }
        for (const VexaMixUserInternal& user : mConfig.mixUsersArray) {
            json layout;
            layout["input_type"] = user.pureAudio ? 4 : 0;
            layout["image_layer"] = layer++;
            layout["image_width"] = user.rect.w;
            layout["image_height"] = user.rect.h;
            layout["location_x"] = user.rect.x;
            layout["location_y"] = user.rect.y;
            inputs.push_back(input(streamIdOf(user), std::move(layout)));
        }

        json body;
        body["interface"] = "set_live_mix_transcoding";
        body["timestamp"] = secondsSinceStart();
        body["event_id"] = ++mLastEvent;
        body["appid"] = mConfig.appId;
        body["path"] = "live";
        body["domain"] = std::to_string(mConfig.bizId) + "." + kstf_get_push_domain_suffix();
        body["session_id"] = session;
        body["output_param"] = std::move(output);
        body["input_stream_list"] = std::move(inputs);
        body["use_mix_crop_center"] = 1;
        return serialize(body);
    }

    std::string report() {
        const std::string session = streamIdOf(mRoomId, "u-bodies", true);

        json output;
        output["output_stream_id"] = session;
        output["output_stream_type"] = 0;

        json inputs = json::array();
        int layer = 1;
        if (!isAudioOnly()) {
            json canvas;
            canvas["image_layer"] = layer++;
            canvas["input_type"] = 3;
            inputs.push_back(input("canvas1", std::move(canvas)));
        }
        for (const VexaMixUserInternal& user : mConfig.mixUsersArray) {
            json layout;
            layout["input_type"] = user.pureAudio ? 4 : 0;
            layout["image_layer"] = layer++;
            inputs.push_back(input(streamIdOf(user), std::move(layout)));
        }

        json description;
        description["session_id"] = session;
        description["output_param"] = std::move(output);
        description["input_stream_list"] = std::move(inputs);
        return "task_id:" + std::to_string(kTask) + ", pureAudioOutputStream:" + (isAudioOnly() ? "1" : "0") +
               ", stream: " + serialize(description);
    }

    std::string streamId() { return streamIdOf("4711", "guest-1", true); }

private:
    static void setIfGiven(json& output, const char* key, int value) {
        if (value != -1) {
            output[key] = value;
        }
    }

    static json input(std::string streamId, json layout) {
        json result;
        result["input_stream_id"] = std::move(streamId);
        result["layout_params"] = std::move(layout);
        return result;
    }

    // Names may contain any bytes.
    static std::string serialize(const json& value) {
        return value.dump(-1, ' ', false, json::error_handler_t::replace);
    }

    static int secondsSinceStart() {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<int>(now.tv_sec);
    }

    bool isAudioOnly() const {
        for (const VexaMixUserInternal& user : mConfig.mixUsersArray) {
            if (!user.pureAudio) {
                return false;
            }
        }
        return true;
    }

    std::string streamIdOf(const VexaMixUserInternal& user) const {
        return streamIdOf(user.roomId.empty() ? mRoomId : user.roomId, user.userId, user.streamType != 2);
    }

    std::string streamIdOf(const std::string& roomId, const std::string& userId, bool isMain) const {
        const std::string name = roomId + "_" + userId + (isMain ? "_main" : "_aux");
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int size = 0;
        if (EVP_Digest(name.data(), name.size(), digest, &size, EVP_md5(), nullptr) != 1) {
            std::abort();
        }
        std::string id = std::to_string(mConfig.bizId) + "_";
        id.reserve(id.size() + size_t{2} * size);
        for (unsigned int i = 0; i < size; ++i) {
            id += "0123456789abcdef"[digest[i] >> 4];
            id += "0123456789abcdef"[digest[i] & 15];
        }
        return id;
    }

    const VexaTranscodingConfigInternal mConfig;
    const std::string mRoomId = "4711";
    std::atomic<int> mLastEvent{1'700'000'000};
};

// ---- The measurements -----------------------------------------------------------------------------------------------

// Removes the two numbers that differ from call to call.
std::string withoutVaryingNumbers(std::string text) {
    for (const std::string key : {"\"timestamp\":", "\"event_id\":"}) {
        const size_t at = text.find(key);
        if (at != std::string::npos) {
            const size_t number = at + key.size();
            text.erase(number, text.find_first_not_of("0123456789", number) - number);
        }
    }
    return text;
}

void requireEqual(const std::string& byAdapter, const std::string& handwritten) {
    if (withoutVaryingNumbers(byAdapter) != withoutVaryingNumbers(handwritten)) {
        std::fprintf(stderr, "the strings differ:\n%s\n%s\n", byAdapter.c_str(), handwritten.c_str());
        std::exit(1);
    }
}

template <class Make>
double microsecondsOf(Make make) {
    const auto secondsOf = [&make](int times) {
        const double begun = bench::seconds();
        for (int i = 0; i < times; ++i) {
            make();
        }
        return bench::seconds() - begun;
    };
    secondsOf(100);
    const int times = 1 + static_cast<int>(kSecondsOfBatch * 100 / secondsOf(100));
    std::vector<double> batches;
    for (int i = 0; i < kBatches; ++i) {
        batches.push_back(secondsOf(times) * 1e6 / times);
    }
    return bench::percentile(batches, 0.1);  // the 10th percentile: batches that other processes did not delay
}

template <class Maker>
void run() {
    for (const int users : kMixes) {
        requireEqual(ByAdapter(users).mix(), Handwritten(users).mix());
        requireEqual(ByAdapter(users).report(), Handwritten(users).report());
    }
    requireEqual(ByAdapter(1).streamId(), Handwritten(1).streamId());

    for (const int users : kMixes) {
        Maker maker(users);
        const std::string figure = "mix_us_" + std::to_string(users) + (users == 1 ? "_user" : "_users");
        bench::print(figure.c_str(), microsecondsOf([&maker] { return maker.mix(); }));
    }
    Maker maker(kLargestMix);
    bench::print("report_us_16_users", microsecondsOf([&maker] { return maker.report(); }));
    bench::print("stream_id_us", microsecondsOf([&maker] { return maker.streamId(); }));
}

}  // namespace

int main(int argc, char** argv) {
    return bench::runContender(argc, argv, {{"vexalive", run<ByAdapter>}, {"handwritten", run<Handwritten>}});
}
