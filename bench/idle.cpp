// Measures an unused adapter: its memory, the time to construct and destroy it, and its threads and descriptors.

#include <malloc.h>

#include <filesystem>
#include <iterator>
#include <memory>

#include "Benchmark.h"
#include "Com/LiveTranscodingAdapter.h"

namespace {

using Adapters = std::vector<std::shared_ptr<LiveTranscodingAdapter>>;

constexpr size_t kAdapters = 10000;
constexpr int kRounds = 30;

class Listener : public ILiveTrancodingDelegate {
    void onStartPublishStreamUrl(int, std::string) override {}
    void onStopPublishStreamUrl(int, std::string) override {}
    void onSetLiveMixTranscoding(int, std::string) override {}
    void onStopLiveMixTranscoding(int, std::string) override {}
};

void construct(Adapters& adapters) {
    for (size_t i = 0; i < kAdapters; ++i) {
        adapters.push_back(std::make_shared<LiveTranscodingAdapter>());
    }
}

// Returns the size of all allocated blocks in bytes, with the allocator's headers and padding.
double allocatedBytes() {
    return static_cast<double>(mallinfo2().uordblks);
}

int openDescriptors() {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

void measureResources(Adapters& adapters) {
    const auto listener = std::make_shared<Listener>();
    const int threads = bench::threads();
    const int descriptors = openDescriptors();
    Adapters first;  // fills the caches of the allocator before the measurement
    for (int i = 0; i < 100; ++i) {
        first.push_back(std::make_shared<LiveTranscodingAdapter>());
    }

    const double before = allocatedBytes();
    construct(adapters);
    const double constructed = allocatedBytes();
    for (const auto& adapter : adapters) {
        adapter->setLiveTranscodingDelegate(listener);
    }
    const double listening = allocatedBytes();

    bench::print("bytes_per_adapter", (constructed - before) / kAdapters);
    bench::print("bytes_per_adapter_with_listener", (listening - before) / kAdapters);
    bench::print("threads_added", bench::threads() - threads);
    bench::print("descriptors_added", openDescriptors() - descriptors);
    adapters.clear();
}

void measureTime(Adapters& adapters) {
    std::vector<double> constructing;
    std::vector<double> destroying;
    for (int round = 0; round < kRounds; ++round) {
        const double begun = bench::seconds();
        construct(adapters);
        const double constructed = bench::seconds();
        adapters.clear();
        constructing.push_back((constructed - begun) * 1e6 / kAdapters);
        destroying.push_back((bench::seconds() - constructed) * 1e6 / kAdapters);
    }
    bench::print("construct_us", bench::percentile(constructing, 0.5));
    bench::print("destroy_us", bench::percentile(destroying, 0.5));
}

void vexalive() {
    Adapters adapters;
    adapters.reserve(kAdapters);
    measureResources(adapters);
    measureTime(adapters);
}

}  // namespace

int main(int argc, char** argv) {
    return bench::runContender(argc, argv, {{"vexalive", vexalive}});
}
