// Helpers of the tests of mix files: configurations and users to start from.

#ifndef VEXALIVE_TESTS_MIX_MIX_TESTING_H
#define VEXALIVE_TESTS_MIX_MIX_TESTING_H

#include <cstdint>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "params/VexaTranscodingConfigInternal.h"

namespace vexalive {

using Config = kstmedia::VexaTranscodingConfigInternal;
using User = kstmedia::VexaMixUserInternal;

inline std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline User user(std::string userId, int32_t zOrder, User::Rect rect = {0, 0, 100, 100}) {
    User user;
    user.userId = std::move(userId);
    user.zOrder = zOrder;
    user.rect = rect;
    return user;
}

inline User audioUser(std::string userId, int32_t zOrder = 0) {
    User audio = user(std::move(userId), zOrder, {});
    audio.pureAudio = true;
    return audio;
}

// A complete configuration with a canvas of 1280 by 720.
inline Config mix(std::vector<User> users) {
    Config config;
    config.appId = 1250000000;
    config.bizId = 3891;
    config.videoWidth = 1280;
    config.videoHeight = 720;
    config.videoBitrate = 1500;
    config.videoFramerate = 20;
    config.videoGOP = 2;
    config.audioSampleRate = 48000;
    config.audioBitrate = 64;
    config.audioChannels = 2;
    config.mixUsersArray = std::move(users);
    return config;
}

// A random configuration. About half of the results are valid.
inline Config randomMix(std::mt19937& random) {
    const auto pick = [&random](int lowest, int highest) {
        return std::uniform_int_distribution<int>(lowest, highest)(random);
    };
    const auto oneIn = [&pick](int many) { return pick(1, many) == 1; };
    Config config = mix({});
    config.mode = pick(-2, 2);
    int32_t Config::*const numbers[] = {&Config::appId,        &Config::bizId,           &Config::videoWidth,
                                        &Config::videoHeight,  &Config::videoBitrate,    &Config::videoFramerate,
                                        &Config::videoGOP,     &Config::audioSampleRate, &Config::audioBitrate,
                                        &Config::audioChannels};
    for (int32_t Config::*number : numbers) {
        if (oneIn(12)) {
            const int32_t odd[] = {0, 0, -1, -7, INT32_MIN, INT32_MAX, 1};
            config.*number = odd[pick(0, 6)];
        }
    }
    if (oneIn(3)) {
        std::swap(config.videoWidth, config.videoHeight);
    }
    const bool isAudio = oneIn(4);
    const bool isTidy = !oneIn(3);
    const int users = oneIn(10) ? pick(0, 40) : pick(0, 6);
    for (int i = 0; i < users; ++i) {
        User next = user("user" + std::to_string(pick(0, 9)), isTidy ? 16 - i : pick(-1, 18));
        next.rect = {pick(-300, 1500), pick(-300, 900), pick(-10, 900), pick(-10, 600)};
        if (oneIn(20)) {
            next.rect = {oneIn(2) ? INT32_MIN : INT32_MAX, INT32_MIN, INT32_MAX, oneIn(2) ? INT32_MIN : INT32_MAX};
        }
        next.pureAudio = isAudio || oneIn(8);
        next.streamType = pick(-1, 3);
        const std::string rooms[] = {"", "", "room", "4712", "<&>", std::string("nu\0l", 4), std::string(3000, 'r')};
        next.roomId = rooms[pick(0, 6)];
        const std::string hebrew = "\xd7\xa9\xd7\x9c\xd7\x95\xd7\x9d";  // written from right to left
        const std::string names[] = {"",     "\"q'<b>&",    hebrew, {"a\0b", 3}, std::string(5000, 'w'),
                                     "\xff", "two\nlines\t"};
        if (oneIn(4)) {
            next.userId = names[pick(0, 6)];
        }
        config.mixUsersArray.push_back(std::move(next));
    }
    return config;
}

}  // namespace vexalive

#endif
