// Builds request bodies and stream ids, so that CountsTest can count the instructions.
//
//     body_probe mix USERS N      N bodies of a mix with USERS users
//     body_probe stream_id N      N stream ids

#include <cstdlib>
#include <string>

#include "support/SampleMix.h"

namespace {

// False if a string is empty.
template <class F>
bool repeat(int number, F build) {
    bool allBuilt = true;
    for (int i = 0; i < number; ++i) {
        allBuilt &= !build().empty();
    }
    return allBuilt;
}

}  // namespace

int main(int argc, char** argv) {
    namespace requests = vexalive::requests;
    const std::string what = argc > 2 ? argv[1] : "";
    const int number = std::atoi(argv[argc - 1]);
    if (what == "mix" && argc == 4) {
        const SampleMix mix(std::atoi(argv[2]));
        const requests::Envelope envelope = {mix.config.appId, 1000, 1'700'000'000};
        return repeat(number, [&] { return requests::startMixBody(envelope, mix.sender, mix.config); }) ? 0 : 1;
    }
    if (what == "stream_id") {
        return repeat(number, [] { return requests::streamId(8888, "4711", "guest-1", true); }) ? 0 : 1;
    }
    return 2;
}
