// The local service with its origin (the RTMP server), publishers, and viewers that check pixels, tones and packets.
// Publishers and viewers are FFmpeg's programs, which share no code with the media workers.

#ifndef VEXALIVE_TESTS_MEDIA_MEDIA_TESTING_H
#define VEXALIVE_TESTS_MEDIA_MEDIA_TESTING_H

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "service/Child.h"
#include "service/Origin.h"
#include "support/ServiceTesting.h"

namespace mediatesting {

using servicetesting::json;
using servicetesting::relayOf;
using servicetesting::streamIdOf;

// A program whose output is read as it arrives. Its errors go to standard error. The destructor kills it.
class Program {
public:
    // Called on a separate thread with the output that is not consumed yet. Returns the number of bytes it consumes.
    using OnOutput = std::function<size_t(std::string_view output)>;
    explicit Program(
        std::vector<std::string> arguments, OnOutput onOutput = [](auto all) { return all.size(); });
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    void signal(int number) const { mChild->signal(number); }
    bool hasEnded() const { return mHasEnded; }  // true once the program has ended and all its output is read

private:
    std::unique_ptr<vexalive::Child> mChild;
    std::atomic<bool> mHasEnded{false};
    std::thread mReader;
};

// The local service with media, in this process.
class LocalService {
public:
    LocalService();

    int post(const json& body) { return servicetesting::post(mClient, body)["code"]; }
    json state() const { return mService.state(); }
    // The "media" object of the first mix or of a relay. Relays are ordered by stream id.
    json mix() const { return mediaOf("mixes", 0); }
    json relay(size_t index = 0) const { return mediaOf("relays", index); }
    bool mixReaches(const std::string& state) const;
    bool inputReaches(size_t index, const std::string& state) const;  // an input of the mix
    bool relayReaches(const std::string& state, size_t index = 0) const;
    std::string origin() const { return state()["service"]["origin"]["address"]; }
    std::string memberUrl(int number) const { return origin() + "/live/" + streamIdOf(number); }
    std::string mixUrl() const { return origin() + "/mix/" + streamIdOf(1); }
    std::string get(const std::string& path);  // the body of a response to a GET request
    void injectFault(const vexalive::Fault& fault) { mService->inject(fault); }
    std::vector<std::string> refusals() const;  // the log lines of refused publishers

    // The child processes of the service whose command line contains this string.
    static std::vector<pid_t> children(const std::string& commandLine);

private:
    struct Log;
    json mediaOf(const char* list, size_t index) const;

    std::shared_ptr<Log> mLog;
    servicetesting::RunningService mService;
    HttpClient mClient;
};

// An RTMP server that the local service does not manage.
class ExternalServer {
public:
    ExternalServer();
    std::string url(const std::string& name) const { return mServer.address().url + "/cdn/" + name; }
    void start();
    void signal(int number) { mProcess->signal(number); }

private:
    const servicetesting::TemporaryFolder mFolder;
    vexalive::Origin mServer;
    std::unique_ptr<vexalive::Child> mProcess;
};

// The value of a field of /proc/PID/status; 0 if the process has ended.
long processField(pid_t pid, const std::string& name);

struct TestStream {
    std::string colour;  // a colour name of FFmpeg; empty: audio only
    int tone = 0;        // Hz; 0: video only
    int width = 640;
    int height = 360;
    int frameRate = 20;
    int noise = 0;  // kbit/s of added noise
};
std::unique_ptr<Program> publish(const std::string& url, const TestStream& stream);

using Rgb = std::array<int, 3>;
bool isNear(const Rgb& one, const Rgb& other);
constexpr Rgb kRed{254, 0, 0};
constexpr Rgb kLime{0, 255, 0};
constexpr Rgb kBlue{0, 0, 254};

struct Pixel {
    int x;
    int y;
    Rgb colour;
};

// Decodes the video of a stream, or an image file, of a known size.
class Viewer {
public:
    explicit Viewer(const std::string& url, int width = 640, int height = 360);

    int frames() const { return copyUnderLock(mFrames); }
    bool hasEnded() const { return mProgram->hasEnded(); }
    bool shows(const std::vector<Pixel>& pixels) const;        // whether the latest frame has all of these
    bool comesToShow(const std::vector<Pixel>& pixels) const;  // waits for such a frame; false on a timeout

    // From now on, each frame has to show either all of `before` or all of `after`.
    void expectChange(std::vector<Pixel> before, std::vector<Pixel> after);
    // The number of the first frame that showed `after`; 0 if there is none.
    int firstChanged() const { return copyUnderLock(mFirstChanged); }
    int torn() const { return copyUnderLock(mTorn); }  // number of frames that showed neither

private:
    int copyUnderLock(const int& value) const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return value;
    }
    size_t read(std::string_view output);
    bool matches(const std::vector<Pixel>& pixels) const;  // the caller holds mMutex

    const int mWidth;
    const int mHeight;
    mutable std::mutex mMutex;
    std::string mFrame;
    int mFrames = 0;
    std::vector<Pixel> mBefore;
    std::vector<Pixel> mAfter;  // empty: frames are not checked
    int mFirstChanged = 0;
    int mTorn = 0;
    std::unique_ptr<Program> mProgram;  // last member: its thread uses the others
};

// Detects tones in the audio of a stream, in pieces of 100 ms.
class Listener {
public:
    explicit Listener(const std::string& url);
    // Waits until five pieces in a row have exactly these tones (of 440, 660, 880 and 1320 Hz); false on a timeout.
    bool comesToDetect(const std::vector<int>& tones) const;

private:
    size_t read(std::string_view output);

    mutable std::mutex mMutex;
    std::vector<int> mTones;
    int mEqualPieces = 0;
    std::unique_ptr<Program> mProgram;
};

// Records the packets of a stream, or its decoded frames.
class Probe {
public:
    enum Unit { kPackets, kFrames };
    struct Record {
        double time = 0;  // seconds: the decoding time of a packet, the presentation time of a frame
        // The members below are set for frames only; for packets they stay 0 or false.
        int width = 0;
        int height = 0;
        int bytes = 0;
        bool isKey = false;
        int samples = 0;
        int channels = 0;
    };
    explicit Probe(const std::string& url, Unit unit = kPackets);

    std::vector<Record> video() const { return records("video"); }
    std::vector<Record> audio() const { return records("audio"); }
    bool awaitVideo(size_t count) const;  // waits for `count` video records in total; false on a timeout
    bool hasEnded() const { return mProgram->hasEnded(); }
    double longestVideoGap() const { return longestGap(video()); }
    bool isMonotonic() const;

    static double longestGap(const std::vector<Record>& records);

private:
    size_t read(std::string_view output);
    std::vector<Record> records(const std::string& kind) const;

    mutable std::mutex mMutex;
    std::map<std::string, std::vector<Record>> mRecords;
    std::unique_ptr<Program> mProgram;
};

// An input of the mix of member 1. The canvas has 640 x 360 pixels and 20 frames per second.
struct Input {
    int member;
    int x;
    int y;
    int width;
    int height;
    bool audioOnly = false;
};
json mixBody(const std::vector<Input>& inputs, const std::string& colour = "0x204060");

// Random layouts. The same seed gives the same layouts.
class RandomLayouts {
public:
    explicit RandomLayouts(unsigned seed) : mRandom(seed) {}
    int between(int low, int high) { return std::uniform_int_distribution<int>(low, high)(mRandom); }
    // Inputs of most of the first `members` at random positions, and one input of a member who never publishes.
    std::vector<Input> next(int members);

private:
    std::mt19937 mRandom;
};

}  // namespace mediatesting

#endif
