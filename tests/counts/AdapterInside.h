// The adapter's private members that make texts, and those that the texts are made of, for measuring them alone.

#ifndef VEXALIVE_TESTS_COUNTS_ADAPTER_INSIDE_H
#define VEXALIVE_TESTS_COUNTS_ADAPTER_INSIDE_H

#include <cstdint>
#include <memory>
#include <string>

#include "Com/LiveTranscodingAdapter.h"

struct AdapterInside {
    std::string (LiveTranscodingAdapter::*getMixPostData)();
    std::string (LiveTranscodingAdapter::*getReportMixPostData)(int);
    std::string (LiveTranscodingAdapter::*getStreamId)(std::string, std::string, bool);
    std::string LiveTranscodingAdapter::*roomId;
    std::string LiveTranscodingAdapter::*userId;
    int32_t LiveTranscodingAdapter::*appId;
    int32_t LiveTranscodingAdapter::*bizId;
    kstmedia::VexaTranscodingConfigInternal LiveTranscodingAdapter::*config;
};

inline AdapterInside adapterInside();

// An explicit instantiation, and nothing else, may name private members.
template <auto... kMembers>
struct OpenedAdapter {
    friend AdapterInside adapterInside() { return {kMembers...}; }
};
template struct OpenedAdapter<&LiveTranscodingAdapter::getMixPostData, &LiveTranscodingAdapter::getReportMixPostData,
                              &LiveTranscodingAdapter::getStreamId, &LiveTranscodingAdapter::mRoomId,
                              &LiveTranscodingAdapter::mUserId, &LiveTranscodingAdapter::mAppId,
                              &LiveTranscodingAdapter::mBizId, &LiveTranscodingAdapter::mTranscodingConfig>;

// An adapter in the room "4711" that is asked for a mix of so many users, without a worker and without a request.
inline std::shared_ptr<LiveTranscodingAdapter> adapterThatMixes(int users) {
    const AdapterInside inside = adapterInside();
    kstmedia::VexaTranscodingConfigInternal config;
    config.appId = 1250000000;
    config.bizId = 8888;
    config.videoWidth = 1280;
    config.videoHeight = 720;
    config.videoBitrate = 1500;
    config.videoFramerate = 15;
    config.videoGOP = 2;
    config.audioSampleRate = 48000;
    config.audioBitrate = 64;
    config.audioChannels = 2;
    for (int i = 0; i < users; ++i) {
        kstmedia::VexaMixUserInternal user;
        user.userId = "guest-" + std::to_string(i + 1);
        user.rect = {i % 4 * 320, i / 4 * 180, 320, 180};
        user.zOrder = i + 1;
        user.pureAudio = i % 4 == 3;
        config.mixUsersArray.push_back(user);
    }
    auto adapter = std::make_shared<LiveTranscodingAdapter>();
    (*adapter).*inside.roomId = "4711";
    (*adapter).*inside.userId = "u-bodies";
    (*adapter).*inside.appId = config.appId;
    (*adapter).*inside.bizId = config.bizId;
    (*adapter).*inside.config = config;
    return adapter;
}

#endif
