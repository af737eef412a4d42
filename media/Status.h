// How a worker, or one of its inputs, is doing.

#ifndef VEXALIVE_MEDIA_STATUS_H
#define VEXALIVE_MEDIA_STATUS_H

#include <cstdint>
#include <string>
#include <vector>

namespace vexalive {

enum class MediaState {
    kStarting,      // nothing has flowed yet
    kRunning,       // media flows
    kReconnecting,  // has run; absent or broken now
    kStopping,
};

struct MediaNumbers {
    MediaState state = MediaState::kStarting;
    std::string error;  // the last, in plain words; none while it runs
    uint64_t bytes = 0;
    uint64_t frames = 0;      // of video; of audio if there is no video
    uint64_t dropped = 0;     // frames thrown away
    uint64_t reconnects = 0;  // connections after the first
};

struct InputStatus {
    std::string streamId;
    MediaNumbers numbers;
};

struct WorkerStatus {
    MediaNumbers numbers;  // of the destination
    std::vector<InputStatus> inputs;
};

}  // namespace vexalive

#endif
