#include "media/MixFlv.h"

#include <cstdint>
#include <cstring>

namespace vexalive {

namespace {

constexpr char kAudioTag = 8;
constexpr char kVideoTag = 9;
constexpr char kScriptTag = 18;
constexpr char kKeyAvc = 0x17;
constexpr char kInterAvc = 0x27;
constexpr char kAac = '\xaf';  // the rate and the channels in there are fixed for AAC; they stand in its setup
constexpr char kSetup = 0;
constexpr char kFrame = 1;

std::string number(uint64_t value, int bytes) {
    std::string text;
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
        text += static_cast<char>(value >> shift & 0xff);
    }
    return text;
}

char typeOf(FlvTag::Kind kind) {
    switch (kind) {
        case FlvTag::Kind::kAudio:
            return kAudioTag;
        case FlvTag::Kind::kVideo:
            return kVideoTag;
        case FlvTag::Kind::kScript:
            break;
    }
    return kScriptTag;
}

FlvTag makeTag(FlvTag::Kind kind, std::string_view head, std::string_view body) {
    FlvTag tag;
    tag.kind = kind;
    tag.bytes = typeOf(kind) + number(head.size() + body.size(), 3) + number(0, 4 + 3);
    tag.bytes.append(head).append(body);
    tag.bytes += number(tag.bytes.size(), 4);
    return tag;
}

FlvTag makeVideoTag(char frame, char packet, std::string_view body) {
    // There are no frames between others, so each is shown when it is decoded: 0 apart.
    return makeTag(FlvTag::Kind::kVideo, std::string{frame, packet, 0, 0, 0}, body);
}

std::string amfName(std::string_view name) {
    return number(name.size(), 2).append(name);
}

std::string amfField(std::string_view name, double value) {
    uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return amfName(name) + '\0' + number(bits, 8);
}

}  // namespace

FlvTag setupTag(FlvTag::Kind kind, std::string_view codecData) {
    return kind == FlvTag::Kind::kVideo ? makeVideoTag(kKeyAvc, kSetup, codecData)
                                        : makeTag(kind, std::string{kAac, kSetup}, codecData);
}

FlvTag videoTag(std::string_view frame, bool isKey) {
    return makeVideoTag(isKey ? kKeyAvc : kInterAvc, kFrame, frame);
}

FlvTag audioTag(std::string_view frame) {
    return makeTag(FlvTag::Kind::kAudio, std::string{kAac, kFrame}, frame);
}

FlvTag metadataTag(const std::optional<MixVideo>& video, const std::optional<MixAudio>& audio) {
    std::string fields;
    uint64_t count = 0;
    const auto add = [&](std::string_view name, double value) {
        fields += amfField(name, value);
        ++count;
    };
    if (video) {
        add("width", video->width);
        add("height", video->height);
        add("framerate", video->frameRate);
        add("videocodecid", 7);
        add("videodatarate", video->bitrate);
    }
    if (audio) {
        add("audiocodecid", 10);
        add("audiodatarate", audio->bitrate);
        add("audiosamplerate", audio->sampleRate);
        add("audiosamplesize", 16);
        add("audiochannels", audio->channels);
    }
    constexpr char kString = 2;
    constexpr char kArray = 8;
    const std::string head = kString + amfName("onMetaData") + kArray + number(count, 4);
    return makeTag(FlvTag::Kind::kScript, head, fields + amfName("") + '\x09');
}

}  // namespace vexalive
