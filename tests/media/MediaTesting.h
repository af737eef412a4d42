// What the tests on real media share: a desk with the local service and its origin, members who publish, and people who
// watch, listen and look at the packets. Members and watchers are FFmpeg's programs: peers that share no code with what
// they test.

#ifndef VEXALIVE_TESTS_MEDIA_MEDIA_TESTING_H
#define VEXALIVE_TESTS_MEDIA_MEDIA_TESTING_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "service/Origin.h"
#include "support/ServiceTesting.h"

namespace mediatesting {

using servicetesting::eventually;
using servicetesting::json;
using servicetesting::streamIdOf;

// A program whose output is read as it comes. It is killed when this ends.
class Program {
public:
    using Take = std::function<void(const char* bytes, size_t count)>;  // on a thread of its own
    Program(const std::vector<std::string>& arguments, Take take);
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    pid_t pid() const { return mPid; }
    // All output has been read, and the program has closed it: it has ended.
    bool hasEnded() const { return mHasEnded; }

private:
    pid_t mPid = -1;
    int mOutput = -1;
    std::atomic<bool> mHasEnded{false};
    std::thread mReader;
};

// The local service with media, in this process.
class Desk {
public:
    Desk();

    // The code of the answer.
    int ask(const json& body);
    json state() const { return mService.state(); }
    json mix() const;                    // the first one of the state
    json relay(size_t place = 0) const;  // they stand there by their members
    std::string origin() const { return state()["service"]["origin"]["address"]; }
    std::string memberUrl(int number) const { return origin() + "/live/" + streamIdOf(number); }
    std::string mixUrl() const { return origin() + "/mix/" + streamIdOf(1); }

    void injectFault(const vexalive::Fault& fault) { mService->inject(fault); }

    // As a browser would.
    std::string get(const std::string& path) const;

    // The processes that the service has started, whose command line holds `text`.
    static std::vector<pid_t> children(const std::string& text);

    // The lines of the service's log that tell of a refused publish.
    std::vector<std::string> refusals() const;

private:
    struct Log;
    std::shared_ptr<Log> mLog;
    servicetesting::RunningService mService;
    std::unique_ptr<httplib::Client> mClient;
};

// An RTMP server that knows nothing of the desk.
class OtherServer {
public:
    OtherServer();
    std::string url(const std::string& name) const { return mServer.address().url + "/cdn/" + name; }
    void start();
    void signal(int number) { mProcess->signal(number); }

private:
    const servicetesting::TemporaryFolder mFolder;
    vexalive::Origin mServer;
    std::unique_ptr<vexalive::Child> mProcess;
};

// One colour and one tone, published.
struct Look {
    std::string colour;  // as FFmpeg names them; none: sound alone
    int tone = 0;        // Hz; 0: a picture alone
    int width = 640;
    int height = 360;
    int framesPerSecond = 20;
    int noise = 0;  // kbit/s; 0: nothing but the colour
};
std::unique_ptr<Program> publish(const std::string& url, const Look& look);

struct Rgb {
    int r = 0;
    int g = 0;
    int b = 0;
    bool isNear(const Rgb& other) const;
};
std::ostream& operator<<(std::ostream& out, const Rgb& colour);
constexpr Rgb kRed{254, 0, 0};
constexpr Rgb kLime{0, 255, 0};
constexpr Rgb kBlue{0, 0, 254};

struct Spot {
    int x;
    int y;
    Rgb colour;
};

// Someone who watches a stream, or looks at a picture in a file, of a known size.
class Viewer {
public:
    Viewer(const std::string& url, int width, int height);

    int frames() const;
    bool hasEnded() const { return mProgram->hasEnded(); }
    Rgb at(int x, int y) const;  // of the latest frame
    // All spots look like that in the latest frame.
    bool sees(const std::vector<Spot>& spots) const;
    bool comesToSee(const std::vector<Spot>& spots) const;

    // From now on, each frame is expected to show all of the one or all of the other.
    void expectChange(std::vector<Spot> before, std::vector<Spot> after);
    int changedAt() const;  // the first frame that showed the other; 0: none has
    int torn() const;       // the frames that showed neither

private:
    void take(const char* bytes, size_t count);
    Rgb pixel(int x, int y) const;  // under mMutex, as the next one
    bool shows(const std::vector<Spot>& spots) const;
    void judge();

    const int mWidth;
    const int mHeight;
    std::string mRest;
    mutable std::mutex mMutex;
    std::string mFrame;
    int mFrames = 0;
    std::vector<Spot> mBefore;
    std::vector<Spot> mAfter;  // empty: no change is expected
    int mChangedAt = 0;
    int mTorn = 0;
    std::unique_ptr<Program> mProgram;  // the last: its thread uses all of the above
};

// Someone who listens. Sound is judged in pieces of a tenth of a second.
class Hearer {
public:
    explicit Hearer(const std::string& url);
    // Exactly these of the tones 440, 660, 880, 1320 Hz are heard in five pieces running.
    bool comesToHear(const std::vector<int>& tones) const;
    std::vector<int> heard() const;  // in the latest piece

private:
    void take(const char* bytes, size_t count);

    std::string mRest;
    mutable std::mutex mMutex;
    std::vector<int> mHeard;
    int mPiecesTheSame = 0;
    std::unique_ptr<Program> mProgram;
};

// Someone who notes each packet.
class PacketWatch {
public:
    explicit PacketWatch(const std::string& url);
    std::vector<double> times(
        const std::string& kind) const;  // seconds, of "video" or "audio", in the order of arrival
    bool hasEnded() const { return mProgram->hasEnded(); }
    double longestGap(const std::string& kind) const;
    bool goesBack(const std::string& kind) const;

private:
    void take(const char* bytes, size_t count);

    std::string mRest;
    mutable std::mutex mMutex;
    std::map<std::string, std::vector<double>> mTimes;
    std::unique_ptr<Program> mProgram;
};

// Someone who measures each frame.
class FrameWatch {
public:
    struct Picture {
        double time;  // seconds
        int width;
        int height;
        int bytes;
        bool isKey;
    };
    struct Sound {
        double time;
        int samples;
        int channels;
    };
    explicit FrameWatch(const std::string& url);
    std::vector<Picture> pictures() const;
    std::vector<Sound> sounds() const;
    bool hasEnded() const { return mProgram->hasEnded(); }

private:
    void take(const char* bytes, size_t count);

    std::string mRest;
    mutable std::mutex mMutex;
    std::vector<Picture> mPictures;
    std::vector<Sound> mSounds;
    std::unique_ptr<Program> mProgram;
};

// A mix of member 1's, on a canvas of 640 x 360 at 20 frames a second.
struct Place {
    int member;
    int x;
    int y;
    int width;
    int height;
    bool audioOnly = false;
};
json mixBody(const std::vector<Place>& places, const std::string& colour = "0x204060");
json relayBody(int member, const std::string& destination);
json cancelBody();
json removeBody(int member);

}  // namespace mediatesting

#endif
