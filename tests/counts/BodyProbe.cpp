// Makes the texts of requests, for others to count the processor's work.
//
//     body_probe mix USERS N      N bodies of a mix of so many users
//     body_probe stream_id N      N stream ids

#include <cstdlib>
#include <string>

#include "AdapterInside.h"

namespace {

// False if one is empty.
template <class F>
bool make(int number, F text) {
    bool isWhole = true;
    for (int i = 0; i < number; ++i) {
        isWhole &= !text().empty();
    }
    return isWhole;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string what = argc > 2 ? argv[1] : "";
    const int number = std::atoi(argv[argc - 1]);
    const AdapterInside inside = adapterInside();
    if (what == "mix" && argc == 4) {
        const auto adapter = adapterThatMixes(std::atoi(argv[2]));
        return make(number, [&] { return (*adapter.*inside.getMixPostData)(); }) ? 0 : 1;
    }
    if (what == "stream_id") {
        const auto adapter = adapterThatMixes(1);
        return make(number, [&] { return (*adapter.*inside.getStreamId)("4711", "guest-1", true); }) ? 0 : 1;
    }
    return 2;
}
