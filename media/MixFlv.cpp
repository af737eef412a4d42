#include "media/MixFlv.h"

#include <cstdint>
#include <cstring>

namespace vexalive {

namespace {

// AMF type markers.
constexpr char kAmfString = 2;
constexpr char kAmfArray = 8;
constexpr std::string_view kAmfObjectEnd{"\0\0\x09", 3};

std::string number(uint64_t value, int bytes) {
    std::string result;
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
        result += static_cast<char>(value >> shift & 0xff);
    }
    return result;
}

FlvTag makeTag(FlvTag::Kind kind, std::string_view header, std::string_view payload) {
    FlvTag tag;
    tag.kind = kind;
    tag.bytes = static_cast<char>(kind) + number(header.size() + payload.size(), 3) + number(0, 4 + 3);
    tag.bytes.append(header).append(payload);
    tag.bytes += number(tag.bytes.size(), 4);
    return tag;
}

FlvTag makeVideoTag(FlvTag::FrameType frame, FlvTag::Packet packet, std::string_view payload) {
    // The composition time is 0: the encoder makes no B-frames.
    const auto format = static_cast<char>(static_cast<unsigned>(frame) << 4 | kFlvAvc);
    return makeTag(FlvTag::Kind::kVideo, std::string{format, static_cast<char>(packet), 0, 0, 0}, payload);
}

FlvTag makeAudioTag(FlvTag::Packet packet, std::string_view payload) {
    // 0x0f means 44 kHz, 16 bits, stereo. FLV prescribes it for AAC; the actual values are in the sequence header.
    const auto format = static_cast<char>(kFlvAac << 4 | 0x0f);
    return makeTag(FlvTag::Kind::kAudio, std::string{format, static_cast<char>(packet)}, payload);
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

FlvTag sequenceHeaderTag(FlvTag::Kind kind, std::string_view codecData) {
    return kind == FlvTag::Kind::kVideo
               ? makeVideoTag(FlvTag::FrameType::kKey, FlvTag::Packet::kSequenceHeader, codecData)
               : makeAudioTag(FlvTag::Packet::kSequenceHeader, codecData);
}

FlvTag videoTag(std::string_view frame, bool isKey) {
    return makeVideoTag(isKey ? FlvTag::FrameType::kKey : FlvTag::FrameType::kInter, FlvTag::Packet::kFrame, frame);
}

FlvTag audioTag(std::string_view frame) {
    return makeAudioTag(FlvTag::Packet::kFrame, frame);
}

FlvTag metadataTag(const std::optional<VideoFormat>& video, const std::optional<AudioFormat>& audio) {
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
        add("videocodecid", kFlvAvc);
        add("videodatarate", video->bitrate);
    }
    if (audio) {
        add("audiocodecid", kFlvAac);
        add("audiodatarate", audio->bitrate);
        add("audiosamplerate", audio->sampleRate);
        add("audiosamplesize", 16);
        add("audiochannels", audio->channels);
    }
    const std::string header = kAmfString + amfName("onMetaData") + kAmfArray + number(count, 4);
    return makeTag(FlvTag::Kind::kScript, header, fields.append(kAmfObjectEnd));
}

}  // namespace vexalive
