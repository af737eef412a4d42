#include "MediaTesting.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

namespace mediatesting {

namespace {

constexpr int kSampleRate = 16000;
constexpr size_t kPiece = kSampleRate / 10;
constexpr int kTones[] = {440, 660, 880, 1320};

// The share of a tone in the whole of a piece of sound: Goertzel's filter. 1 for a lone tone.
double shareOf(int tone, const std::vector<int16_t>& piece) {
    const double w = 2 * M_PI * tone / kSampleRate;
    double before = 0;
    double last = 0;
    double energy = 0;
    for (const int16_t sample : piece) {
        const double next = sample + 2 * std::cos(w) * last - before;
        before = last;
        last = next;
        energy += static_cast<double>(sample) * sample;
    }
    const double power = last * last + before * before - 2 * std::cos(w) * last * before;
    return energy == 0 ? 0 : 2 * power / (energy * static_cast<double>(piece.size()));
}

// A tone counts if it has a tenth of the energy; three at once have a third each. Near silence holds none.
std::vector<int> tonesOf(const std::vector<int16_t>& piece) {
    std::vector<int> tones;
    const bool isLoud = std::any_of(piece.begin(), piece.end(), [](int16_t sample) { return std::abs(sample) > 300; });
    for (const int tone : kTones) {
        if (isLoud && shareOf(tone, piece) > 0.1) {
            tones.push_back(tone);
        }
    }
    return tones;
}

json placeOf(const Place& place, int layer) {
    return {{"input_stream_id", streamIdOf(place.member)},
            {"layout_params",
             {{"input_type", place.audioOnly ? 4 : 0},
              {"image_layer", layer},
              {"image_width", place.width},
              {"image_height", place.height},
              {"location_x", place.x},
              {"location_y", place.y}}}};
}

}  // namespace

// ---- Programs -------------------------------------------------------------------------------------------------------

Program::Program(const std::vector<std::string>& arguments, Take take) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        std::abort();
    }
    mOutput = ends[0];
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
    std::vector<char*> words;
    words.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) {
        words.push_back(const_cast<char*>(argument.c_str()));
    }
    words.push_back(nullptr);
    const int failure = ::posix_spawnp(&mPid, words[0], &actions, nullptr, words.data(), environ);
    EXPECT_EQ(failure, 0) << arguments[0];
    mPid = failure == 0 ? mPid : -1;
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(ends[1]);
    mReader = std::thread([this, take = std::move(take)] {
        std::vector<char> bytes(size_t{1} << 20);
        for (ssize_t count = 0; (count = ::read(mOutput, bytes.data(), bytes.size())) > 0;) {
            take(bytes.data(), static_cast<size_t>(count));
        }
        mHasEnded = true;
    });
}

Program::~Program() {
    if (mPid > 0) {
        ::kill(mPid, SIGKILL);
        ::waitpid(mPid, nullptr, 0);
    }
    mReader.join();
    ::close(mOutput);
}

// ---- The desk -------------------------------------------------------------------------------------------------------

struct Desk::Log {
    std::mutex mutex;
    std::vector<std::string> refusals;

    vexalive::LiveServiceOptions options() {
        vexalive::LiveServiceOptions options;
        options.media = true;
        options.workerProgram = VEXALIVE_MEDIA_PROGRAM;
        options.mediaObserver = [this](const vexalive::LiveMediaEvent& event) {
            if (event.kind == vexalive::LiveMediaEvent::Kind::kRefusedPublish) {
                const std::lock_guard<std::mutex> lock(mutex);
                refusals.push_back(event.streamId + ": " + event.text);
            }
        };
        return options;
    }
};

Desk::Desk() : mLog(std::make_shared<Log>()), mService(mLog->options()), mClient(mService.client()) {
    EXPECT_TRUE(eventually([this] { return state()["service"]["origin"]["state"] == "running"; })) << state();
}

std::vector<std::string> Desk::refusals() const {
    const std::lock_guard<std::mutex> lock(mLog->mutex);
    return mLog->refusals;
}

int Desk::ask(const json& body) {
    return servicetesting::post(*mClient, body)["code"];
}

json Desk::mix() const {
    const json mixes = state()["mixes"];
    return mixes.empty() ? json() : mixes[0];
}

json Desk::relay(size_t place) const {
    const json relays = state()["relays"];
    return place < relays.size() ? relays[place] : json();
}

std::string Desk::get(const std::string& path) const {
    const auto answer = mClient->Get(path);
    return answer ? answer->body : "";
}

std::vector<pid_t> Desk::children(const std::string& text) {
    std::vector<pid_t> found;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream list(thread.path() / "children");
        for (pid_t pid = 0; list >> pid;) {
            std::ifstream file("/proc/" + std::to_string(pid) + "/cmdline", std::ios::binary);
            const std::string command{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
            if (command.find(text) != std::string::npos) {
                found.push_back(pid);
            }
        }
    }
    return found;
}

// ---- Another server -------------------------------------------------------------------------------------------------

OtherServer::OtherServer() {
    std::string error;
    EXPECT_TRUE(mServer.prepare(mFolder.path(), error) && mServer.configure(9, error)) << error;
    start();
}

void OtherServer::start() {
    std::string error;
    mProcess.reset();
    mProcess = vexalive::Child::start(mServer.arguments(), error);
    ASSERT_TRUE(mProcess) << error;
}

// ---- Members and watchers -------------------------------------------------------------------------------------------

std::unique_ptr<Program> publish(const std::string& url, const Look& look) {
    std::vector<std::string> command = {"ffmpeg", "-loglevel", "error", "-re"};
    const auto add = [&command](std::initializer_list<std::string> words) {
        command.insert(command.end(), words.begin(), words.end());
    };
    const std::string rate = std::to_string(look.framesPerSecond);
    if (!look.colour.empty()) {
        add({"-f", "lavfi", "-i",
             "color=" + look.colour + ":s=" + std::to_string(look.width) + "x" + std::to_string(look.height) +
                 ":r=" + rate + (look.noise == 0 ? "" : ",noise=alls=100,noise=alls=30:allf=t")});
    }
    if (look.tone != 0) {
        add({"-re", "-f", "lavfi", "-i", "sine=" + std::to_string(look.tone) + ":sample_rate=48000"});
    }
    if (!look.colour.empty()) {
        add({"-c:v", "libx264", "-preset", "ultrafast", "-tune", "zerolatency", "-pix_fmt", "yuv420p", "-g", rate,
             "-threads", "1"});
    }
    if (look.noise != 0) {
        add({"-b:v", std::to_string(look.noise) + "k"});
    }
    if (look.tone != 0) {
        add({"-c:a", "aac", "-b:a", "96k"});
    }
    add({"-f", "flv", url});
    return std::make_unique<Program>(command, [](const char*, size_t) {});
}

bool Rgb::isNear(const Rgb& other) const {
    const auto isClose = [](int one, int another) { return std::abs(one - another) <= 32; };
    return isClose(r, other.r) && isClose(g, other.g) && isClose(b, other.b);
}

std::ostream& operator<<(std::ostream& out, const Rgb& colour) {
    return out << "rgb(" << colour.r << ", " << colour.g << ", " << colour.b << ")";
}

Viewer::Viewer(const std::string& url, int width, int height) : mWidth(width), mHeight(height) {
    std::vector<std::string> command = {"ffmpeg", "-loglevel", "error", "-fpsprobesize", "0", "-threads", "1"};
    if (url.rfind("rtmp://", 0) == 0) {
        command.insert(command.end(), {"-fflags", "nobuffer", "-flags", "low_delay"});
    }
    command.insert(command.end(),
                   {"-i", url, "-an", "-fps_mode", "passthrough", "-f", "rawvideo", "-pix_fmt", "rgb24", "pipe:1"});
    mProgram = std::make_unique<Program>(command, [this](const char* bytes, size_t count) { take(bytes, count); });
}

void Viewer::take(const char* bytes, size_t count) {
    mRest.append(bytes, count);
    const size_t size = static_cast<size_t>(mWidth) * static_cast<size_t>(mHeight) * 3;
    while (mRest.size() >= size) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mFrame = mRest.substr(0, size);
        mRest.erase(0, size);
        ++mFrames;
        judge();
    }
}

int Viewer::frames() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mFrames;
}

Rgb Viewer::at(int x, int y) const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return pixel(x, y);
}

Rgb Viewer::pixel(int x, int y) const {
    if (mFrame.empty()) {
        return {-1, -1, -1};
    }
    const auto* bytes =
        reinterpret_cast<const unsigned char*>(mFrame.data()) + (static_cast<ptrdiff_t>(y) * mWidth + x) * 3;
    return {bytes[0], bytes[1], bytes[2]};
}

bool Viewer::shows(const std::vector<Spot>& spots) const {
    return std::all_of(spots.begin(), spots.end(),
                       [this](const Spot& spot) { return pixel(spot.x, spot.y).isNear(spot.colour); });
}

bool Viewer::sees(const std::vector<Spot>& spots) const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return shows(spots);
}

void Viewer::expectChange(std::vector<Spot> before, std::vector<Spot> after) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mBefore = std::move(before);
    mAfter = std::move(after);
}

void Viewer::judge() {
    if (mAfter.empty()) {
        return;
    }
    if (shows(mAfter)) {
        mChangedAt = mChangedAt == 0 ? mFrames : mChangedAt;
    } else if (mChangedAt != 0 || !shows(mBefore)) {
        ++mTorn;
    }
}

int Viewer::changedAt() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mChangedAt;
}

int Viewer::torn() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mTorn;
}

bool Viewer::comesToSee(const std::vector<Spot>& spots) const {
    return eventually([&] { return sees(spots); });
}

Hearer::Hearer(const std::string& url) {
    mProgram = std::make_unique<Program>(
        std::vector<std::string>{"ffmpeg", "-loglevel", "error", "-fpsprobesize", "0", "-fflags", "nobuffer", "-i", url,
                                 "-vn", "-f", "s16le", "-ac", "1", "-ar", std::to_string(kSampleRate), "pipe:1"},
        [this](const char* bytes, size_t count) { take(bytes, count); });
}

void Hearer::take(const char* bytes, size_t count) {
    mRest.append(bytes, count);
    std::vector<int16_t> piece(kPiece);
    const size_t size = kPiece * sizeof(int16_t);
    while (mRest.size() >= size) {
        std::copy_n(mRest.data(), size, reinterpret_cast<char*>(piece.data()));
        mRest.erase(0, size);
        std::vector<int> tones = tonesOf(piece);
        const std::lock_guard<std::mutex> lock(mMutex);
        mPiecesTheSame = tones == mHeard ? mPiecesTheSame + 1 : 1;
        mHeard = std::move(tones);
    }
}

std::vector<int> Hearer::heard() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mHeard;
}

bool Hearer::comesToHear(const std::vector<int>& tones) const {
    return eventually([&] {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mHeard == tones && mPiecesTheSame >= 5;
    });
}

PacketWatch::PacketWatch(const std::string& url) {
    mProgram = std::make_unique<Program>(
        std::vector<std::string>{"ffprobe", "-loglevel", "error", "-fpsprobesize", "0", "-show_packets",
                                 "-show_entries", "packet=codec_type,dts_time", "-of", "csv=p=0", url},
        [this](const char* bytes, size_t count) { take(bytes, count); });
}

void PacketWatch::take(const char* bytes, size_t count) {
    mRest.append(bytes, count);
    const std::lock_guard<std::mutex> lock(mMutex);
    for (size_t end = mRest.find('\n'); end != std::string::npos; end = mRest.find('\n')) {
        const size_t comma = mRest.find(',');
        if (comma < end) {
            mTimes[mRest.substr(0, comma)].push_back(std::strtod(mRest.c_str() + comma + 1, nullptr));
        }
        mRest.erase(0, end + 1);
    }
}

std::vector<double> PacketWatch::times(const std::string& kind) const {
    const std::lock_guard<std::mutex> lock(mMutex);
    const auto found = mTimes.find(kind);
    return found == mTimes.end() ? std::vector<double>() : found->second;
}

double PacketWatch::longestGap(const std::string& kind) const {
    const std::vector<double> all = times(kind);
    double longest = 0;
    for (size_t i = 1; i < all.size(); ++i) {
        longest = std::max(longest, all[i] - all[i - 1]);
    }
    return longest;
}

bool PacketWatch::goesBack(const std::string& kind) const {
    const std::vector<double> all = times(kind);
    return !std::is_sorted(all.begin(), all.end());
}

FrameWatch::FrameWatch(const std::string& url) {
    mProgram = std::make_unique<Program>(
        std::vector<std::string>{
            "ffprobe", "-loglevel", "error", "-fpsprobesize", "0", "-show_frames", "-show_entries",
            "frame=media_type,key_frame,best_effort_timestamp_time,pkt_size,width,height,nb_samples,channels", "-of",
            "compact=p=0", url},
        [this](const char* bytes, size_t count) { take(bytes, count); });
}

// Lines such as "media_type=video|key_frame=1|…".
void FrameWatch::take(const char* bytes, size_t count) {
    mRest.append(bytes, count);
    const std::lock_guard<std::mutex> lock(mMutex);
    for (size_t end = mRest.find('\n'); end != std::string::npos; end = mRest.find('\n')) {
        const std::string line = "|" + mRest.substr(0, end);
        const auto field = [&line](const std::string& name) {
            const size_t found = line.find("|" + name + "=");
            return found == std::string::npos ? 0 : std::strtod(line.c_str() + found + name.size() + 2, nullptr);
        };
        const auto number = [&field](const std::string& name) { return static_cast<int>(field(name)); };
        const double time = field("best_effort_timestamp_time");
        if (line.find("|media_type=video") != std::string::npos) {
            mPictures.push_back(
                {time, number("width"), number("height"), number("pkt_size"), number("key_frame") == 1});
        } else if (line.find("|media_type=audio") != std::string::npos) {
            mSounds.push_back({time, number("nb_samples"), number("channels")});
        }
        mRest.erase(0, end + 1);
    }
}

std::vector<FrameWatch::Picture> FrameWatch::pictures() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mPictures;
}

std::vector<FrameWatch::Sound> FrameWatch::sounds() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mSounds;
}

// ---- Requests -------------------------------------------------------------------------------------------------------

json mixBody(const std::vector<Place>& places, const std::string& colour) {
    json body = servicetesting::videoMixBody();
    json canvas = body["input_stream_list"][0];
    canvas["layout_params"]["image_width"] = 640;
    canvas["layout_params"]["image_height"] = 360;
    canvas["layout_params"]["color"] = colour;
    json inputs = json::array();
    if (std::any_of(places.begin(), places.end(), [](const Place& place) { return !place.audioOnly; })) {
        inputs.push_back(canvas);
    }
    for (const Place& place : places) {
        inputs.push_back(placeOf(place, static_cast<int>(inputs.size()) + 1));
    }
    body["input_stream_list"] = inputs;
    return body;
}

json relayBody(int member, const std::string& destination) {
    json body = servicetesting::addRelayBody();
    body["stream_id"] = streamIdOf(member);
    body["dest_stream_url"] = destination;
    return body;
}

json removeBody(int member) {
    json body = servicetesting::removeRelayBody();
    body["stream_id"] = streamIdOf(member);
    return body;
}

json cancelBody() {
    return servicetesting::cancelMixBody();
}

}  // namespace mediatesting
