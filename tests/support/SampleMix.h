// A mix for measurements. User "u-bodies" in room "4711" mixes guests; every fourth guest has audio only.

#ifndef VEXALIVE_TESTS_SUPPORT_SAMPLE_MIX_H
#define VEXALIVE_TESTS_SUPPORT_SAMPLE_MIX_H

#include <string>

#include "Com/LiveRequests.h"

struct SampleMix {
    explicit SampleMix(int users) {
        config.appId = 1250000000;
        config.bizId = sender.bizId;
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
    }

    vexalive::requests::Sender sender = {8888, "4711", "u-bodies"};
    kstmedia::VexaTranscodingConfigInternal config;
};

#endif
