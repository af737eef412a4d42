// Adapters on which nothing was ever called: what one costs in memory and time, and that it costs no thread and no
// descriptor.

#include <malloc.h>

#include <filesystem>
#include <iterator>
#include <memory>

#include "Com/LiveTranscodingAdapter.h"
#include "Contest.h"

namespace {

using Crowd = std::vector<std::shared_ptr<LiveTranscodingAdapter>>;

constexpr size_t kAdapters = 10000;
constexpr int kRounds = 30;

class Listener : public ILiveTrancodingDelegate {
    void onStartPublishStreamUrl(int, std::string) override {}
    void onStopPublishStreamUrl(int, std::string) override {}
    void onSetLiveMixTranscoding(int, std::string) override {}
    void onStopLiveMixTranscoding(int, std::string) override {}
};

void construct(Crowd& crowd) {
    for (size_t i = 0; i < kAdapters; ++i) {
        crowd.push_back(std::make_shared<LiveTranscodingAdapter>());
    }
}

// What the program holds of the allocator: every block with its head and what rounding adds.
double allocatedBytes() {
    return static_cast<double>(mallinfo2().uordblks);
}

int openDescriptors() {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

void measureWhatTheyHold(Crowd& crowd) {
    const auto listener = std::make_shared<Listener>();
    const int threads = bench::threads();
    const int descriptors = openDescriptors();
    Crowd first;  // what they find in the allocator's caches counts as held before
    for (int i = 0; i < 100; ++i) {
        first.push_back(std::make_shared<LiveTranscodingAdapter>());
    }

    const double before = allocatedBytes();
    construct(crowd);
    const double constructed = allocatedBytes();
    for (const auto& adapter : crowd) {
        adapter->setLiveTranscodingDelegate(listener);
    }
    const double listening = allocatedBytes();

    bench::print("bytes_per_adapter", (constructed - before) / kAdapters);
    bench::print("bytes_per_adapter_with_listener", (listening - before) / kAdapters);
    bench::print("threads_added", bench::threads() - threads);
    bench::print("descriptors_added", openDescriptors() - descriptors);
    crowd.clear();
}

void measureTheirTime(Crowd& crowd) {
    std::vector<double> constructing;
    std::vector<double> destroying;
    for (int round = 0; round < kRounds; ++round) {
        const double begun = bench::seconds();
        construct(crowd);
        const double constructed = bench::seconds();
        crowd.clear();
        constructing.push_back((constructed - begun) * 1e6 / kAdapters);
        destroying.push_back((bench::seconds() - constructed) * 1e6 / kAdapters);
    }
    bench::print("construct_us", bench::percentile(constructing, 0.5));
    bench::print("destroy_us", bench::percentile(destroying, 0.5));
}

void vexalive() {
    Crowd crowd;
    crowd.reserve(kAdapters);
    measureWhatTheyHold(crowd);
    measureTheirTime(crowd);
}

}  // namespace

int main(int argc, char** argv) {
    return bench::contest(argc, argv, {{"vexalive", vexalive}});
}
