#include "params/VexaTranscodingConfigInternal.h"

#include <cstdio>

namespace kstmedia {

std::string VexaTranscodingConfigInternal::to_string() const {
    char head[260] = {};
    std::snprintf(head, sizeof head,
                  "mode:%d, appId:%d, bizId:%d, width:%d, height:%d, bitrate:%d, fps:%d, gop:%d, audio_samplerate:%d, "
                  "audio_bitrate:%d, audio_channel:%d",
                  mode, appId, bizId, videoWidth, videoHeight, videoBitrate, videoFramerate, videoGOP, audioSampleRate,
                  audioBitrate, audioChannels);
    std::string text = head;
    int number = 0;
    for (const VexaMixUserInternal& user : mixUsersArray) {
        char piece[260] = {};
        std::snprintf(piece, sizeof piece,
                      " mixUser%d:[userId:%s, roomId:%s, rect:(x:%d-y:%d-w:%d-h:%d), zOrder:%d, pureAudio:%d, "
                      "streamType:%d]",
                      ++number, user.userId.c_str(), user.roomId.c_str(), user.rect.x, user.rect.y, user.rect.w,
                      user.rect.h, user.zOrder, user.pureAudio, user.streamType);
        text += piece;
    }
    return text;
}

}  // namespace kstmedia
