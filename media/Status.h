// The status of a worker and of its inputs.

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
    std::string error;  // why it does not run; empty while it does
    uint64_t bytes = 0;
    uint64_t frames = 0;  // of video; of audio if there is no video
    uint64_t dropped = 0;
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
