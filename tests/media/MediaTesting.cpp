#include "MediaTesting.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <utility>

namespace mediatesting {

namespace {

constexpr int kSampleRate = 16000;
constexpr size_t kPiece = kSampleRate / 10;
constexpr int kTones[] = {440, 660, 880, 1320};

// The share of a tone in the energy of a piece of audio, by the Goertzel algorithm. 1: there is nothing but this tone.
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

// The tones that have at least a tenth of the energy; near silence has none. (Each of three equal tones has a third.)
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

}  // namespace

// ---- Programs -------------------------------------------------------------------------------------------------------

Program::Program(std::vector<std::string> arguments, OnOutput onOutput) {
    arguments[0] = vexalive::findProgram(arguments[0], "").value_or(arguments[0]);
    auto child = vexalive::Child::start(arguments);
    if (!child) {
        ADD_FAILURE() << child.error().message;
        std::abort();
    }
    mChild = std::move(*child);
    mReader = std::thread([this, onOutput = std::move(onOutput)] {
        pollfd sources[] = {{mChild->output.get(), POLLIN, 0}, {mChild->errors.get(), POLLIN, 0}};
        std::vector<char> bytes(size_t{1} << 20);
        std::string output;
        for (ssize_t count = -1; count != 0;) {
            ::poll(sources, std::size(sources), -1);
            const ssize_t errors = ::read(sources[1].fd, bytes.data(), bytes.size());
            std::cerr << std::string_view(bytes.data(), errors > 0 ? static_cast<size_t>(errors) : 0);
            count = ::read(sources[0].fd, bytes.data(), bytes.size());
            if (count > 0) {
                output.append(bytes.data(), static_cast<size_t>(count));
                output.erase(0, onOutput(output));
            }
        }
        mHasEnded = true;
    });
}

Program::~Program() {
    mChild->signal(SIGKILL);
    mReader.join();
}

long processField(pid_t pid, const std::string& name) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind(name + ":", 0) == 0) {
            return std::atol(line.c_str() + name.size() + 1);
        }
    }
    return 0;
}

// ---- Servers --------------------------------------------------------------------------------------------------------

struct LocalService::Log {
    std::mutex mutex;
    std::vector<std::string> refusals;

    vexalive::LiveServiceOptions options() {
        vexalive::LiveServiceOptions options;
        options.media = true;
        options.workerProgram = VEXALIVE_MEDIA_PROGRAM;
        options.mediaObserver = [this](const vexalive::LiveMediaEvent& event) {
            EXPECT_EQ(event.text.find("publishes  "), std::string::npos) << "the name of the stream is missing";
            if (event.kind == vexalive::LiveMediaEvent::Kind::kRefusedPublish) {
                const std::lock_guard<std::mutex> lock(mutex);
                refusals.push_back(event.streamId + ": " + event.text);
            }
        };
        return options;
    }
};

LocalService::LocalService() : mLog(std::make_shared<Log>()), mService(mLog->options()), mClient(mService.client()) {
    EXPECT_TRUE(pollUntil([this] { return state()["service"]["origin"]["state"] == "running"; })) << state();
}

json LocalService::mediaOf(const char* list, size_t index) const {
    const json all = state()[list];
    return index < all.size() ? all[index]["media"] : json();
}

bool LocalService::mixReaches(const std::string& state) const {
    return pollUntil([&] { return mix()["state"] == state; });
}

bool LocalService::inputReaches(size_t index, const std::string& state) const {
    return pollUntil([&] { return mix()["inputs"][index]["state"] == state; });
}

bool LocalService::relayReaches(const std::string& state, size_t index) const {
    return pollUntil([&] { return relay(index)["state"] == state; });
}

std::string LocalService::get(const std::string& path) {
    return mClient.get(path).body;
}

std::vector<std::string> LocalService::refusals() const {
    const std::lock_guard<std::mutex> lock(mLog->mutex);
    return mLog->refusals;
}

std::vector<pid_t> LocalService::children(const std::string& commandLine) {
    std::vector<pid_t> found;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream list(thread.path() / "children");
        for (pid_t pid = 0; list >> pid;) {
            std::ifstream file("/proc/" + std::to_string(pid) + "/cmdline", std::ios::binary);
            const std::string command{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
            if (command.find(commandLine) != std::string::npos) {
                found.push_back(pid);
            }
        }
    }
    return found;
}

ExternalServer::ExternalServer() {
    EXPECT_TRUE(mServer.prepare(mFolder.path()));
    EXPECT_TRUE(mServer.configure(9));
    start();
}

void ExternalServer::start() {
    mProcess.reset();
    auto process = vexalive::Child::start(mServer.arguments());
    ASSERT_TRUE(process) << process.error().message;
    mProcess = std::move(*process);
}

// ---- Publishers and viewers -----------------------------------------------------------------------------------------

std::unique_ptr<Program> publish(const std::string& url, const TestStream& stream) {
    std::vector<std::string> command = {"ffmpeg", "-loglevel", "error", "-re"};
    const auto add = [&command](std::initializer_list<std::string> words) {
        command.insert(command.end(), words.begin(), words.end());
    };
    const std::string rate = std::to_string(stream.frameRate);
    if (!stream.colour.empty()) {
        add({"-f", "lavfi", "-i",
             "color=" + stream.colour + ":s=" + std::to_string(stream.width) + "x" + std::to_string(stream.height) +
                 ":r=" + rate + (stream.noise == 0 ? "" : ",noise=alls=100,noise=alls=30:allf=t")});
    }
    if (stream.tone != 0) {
        add({"-re", "-f", "lavfi", "-i", "sine=" + std::to_string(stream.tone) + ":sample_rate=48000"});
    }
    if (!stream.colour.empty()) {
        add({"-c:v", "libx264", "-preset", "ultrafast", "-tune", "zerolatency", "-pix_fmt", "yuv420p", "-g", rate,
             "-threads", "1"});
    }
    if (stream.noise != 0) {
        add({"-b:v", std::to_string(stream.noise) + "k"});
    }
    if (stream.tone != 0) {
        add({"-c:a", "aac", "-b:a", "96k"});
    }
    add({"-f", "flv", url});
    return std::make_unique<Program>(command);
}

bool isNear(const Rgb& one, const Rgb& other) {
    return std::equal(one.begin(), one.end(), other.begin(), [](int a, int b) { return std::abs(a - b) <= 32; });
}

Viewer::Viewer(const std::string& url, int width, int height) : mWidth(width), mHeight(height) {
    std::vector<std::string> command = {"ffmpeg", "-loglevel", "error", "-fpsprobesize", "0", "-threads", "1"};
    if (url.rfind("rtmp://", 0) == 0) {
        command.insert(command.end(), {"-fflags", "nobuffer", "-flags", "low_delay"});
    }
    command.insert(command.end(),
                   {"-i", url, "-an", "-fps_mode", "passthrough", "-f", "rawvideo", "-pix_fmt", "rgb24", "pipe:1"});
    mProgram = std::make_unique<Program>(command, [this](std::string_view output) { return read(output); });
}

size_t Viewer::read(std::string_view output) {
    const size_t size = static_cast<size_t>(mWidth) * static_cast<size_t>(mHeight) * 3;
    size_t consumed = 0;
    for (; output.size() - consumed >= size; consumed += size) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mFrame = output.substr(consumed, size);
        ++mFrames;
        if (mAfter.empty()) {
            continue;
        }
        if (matches(mAfter)) {
            mFirstChanged = mFirstChanged == 0 ? mFrames : mFirstChanged;
        } else if (mFirstChanged != 0 || !matches(mBefore)) {
            ++mTorn;
        }
    }
    return consumed;
}

bool Viewer::matches(const std::vector<Pixel>& pixels) const {
    return !mFrame.empty() && std::all_of(pixels.begin(), pixels.end(), [this](const Pixel& each) {
        const auto* bytes = reinterpret_cast<const unsigned char*>(mFrame.data()) + (each.y * mWidth + each.x) * 3;
        return isNear({bytes[0], bytes[1], bytes[2]}, each.colour);
    });
}

bool Viewer::shows(const std::vector<Pixel>& pixels) const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return matches(pixels);
}

bool Viewer::comesToShow(const std::vector<Pixel>& pixels) const {
    return pollUntil([&] { return shows(pixels); });
}

void Viewer::expectChange(std::vector<Pixel> before, std::vector<Pixel> after) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mBefore = std::move(before);
    mAfter = std::move(after);
}

Listener::Listener(const std::string& url) {
    mProgram = std::make_unique<Program>(
        std::vector<std::string>{"ffmpeg", "-loglevel", "error", "-fpsprobesize", "0", "-fflags", "nobuffer", "-i", url,
                                 "-vn", "-f", "s16le", "-ac", "1", "-ar", std::to_string(kSampleRate), "pipe:1"},
        [this](std::string_view output) { return read(output); });
}

size_t Listener::read(std::string_view output) {
    std::vector<int16_t> piece(kPiece);
    constexpr size_t kSize = kPiece * sizeof(int16_t);
    size_t consumed = 0;
    for (; output.size() - consumed >= kSize; consumed += kSize) {
        std::memcpy(piece.data(), output.data() + consumed, kSize);
        std::vector<int> tones = tonesOf(piece);
        const std::lock_guard<std::mutex> lock(mMutex);
        mEqualPieces = tones == mTones ? mEqualPieces + 1 : 1;
        mTones = std::move(tones);
    }
    return consumed;
}

bool Listener::comesToDetect(const std::vector<int>& tones) const {
    return pollUntil([&] {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mTones == tones && mEqualPieces >= 5;
    });
}

Probe::Probe(const std::string& url, Unit unit) {
    std::vector<std::string> command = {"ffprobe", "-loglevel", "error", "-fpsprobesize", "0", "-of", "compact=p=0"};
    if (unit == kPackets) {
        command.insert(command.end(), {"-show_packets", "-show_entries", "packet=codec_type,dts_time"});
    } else {
        command.insert(command.end(), {"-show_frames", "-show_entries",
                                       "frame=media_type,key_frame,best_effort_timestamp_time,pkt_size,width,height,"
                                       "nb_samples,channels"});
    }
    command.push_back(url);
    mProgram = std::make_unique<Program>(command, [this](std::string_view output) { return read(output); });
}

// Reads lines of the form "media_type=video|key_frame=1|…".
size_t Probe::read(std::string_view output) {
    size_t consumed = 0;
    for (size_t end = 0; (end = output.find('\n', consumed)) != std::string_view::npos; consumed = end + 1) {
        const std::string line = "|" + std::string(output.substr(consumed, end - consumed)) + "|";
        const auto field = [&line](const std::string& name) {
            const size_t found = line.find("|" + name + "=");
            const size_t begin = found == std::string::npos ? line.size() : found + name.size() + 2;
            return line.substr(begin, line.find('|', begin) - begin);
        };
        const auto number = [&field](const std::string& name) { return std::atoi(field(name).c_str()); };
        const std::string kind = field("codec_type") + field("media_type");
        const std::string time = field("dts_time") + field("best_effort_timestamp_time");
        const std::lock_guard<std::mutex> lock(mMutex);
        mRecords[kind].push_back({std::strtod(time.c_str(), nullptr), number("width"), number("height"),
                                  number("pkt_size"), number("key_frame") == 1, number("nb_samples"),
                                  number("channels")});
    }
    return consumed;
}

std::vector<Probe::Record> Probe::records(const std::string& kind) const {
    const std::lock_guard<std::mutex> lock(mMutex);
    const auto found = mRecords.find(kind);
    return found == mRecords.end() ? std::vector<Record>() : found->second;
}

bool Probe::awaitVideo(size_t count) const {
    return pollUntil([&] { return video().size() >= count; });
}

double Probe::longestGap(const std::vector<Record>& records) {
    double longest = 0;
    for (size_t i = 1; i < records.size(); ++i) {
        longest = std::max(longest, records[i].time - records[i - 1].time);
    }
    return longest;
}

bool Probe::isMonotonic() const {
    const auto isSorted = [](const std::vector<Record>& all) {
        return std::is_sorted(all.begin(), all.end(), [](const Record& a, const Record& b) { return a.time < b.time; });
    };
    return isSorted(video()) && isSorted(audio());
}

// ---- Requests -------------------------------------------------------------------------------------------------------

json mixBody(const std::vector<Input>& inputs, const std::string& colour) {
    json body = servicetesting::videoMixBody();
    json canvas = body["input_stream_list"][0];
    canvas["layout_params"].update({{"image_width", 640}, {"image_height", 360}, {"color", colour}});
    json list = json::array();
    if (std::any_of(inputs.begin(), inputs.end(), [](const Input& input) { return !input.audioOnly; })) {
        list.push_back(canvas);
    }
    for (const Input& input : inputs) {
        list.push_back({{"input_stream_id", streamIdOf(input.member)},
                        {"layout_params",
                         {{"input_type", input.audioOnly ? 4 : 0},
                          {"image_layer", list.size() + 1},
                          {"image_width", input.width},
                          {"image_height", input.height},
                          {"location_x", input.x},
                          {"location_y", input.y}}}});
    }
    body["input_stream_list"] = list;
    return body;
}

std::vector<Input> RandomLayouts::next(int members) {
    std::vector<Input> inputs;
    for (int number = 1; number <= members; ++number) {
        if (between(0, 3) != 0) {
            inputs.push_back(
                {number, between(-100, 500), between(-100, 300), between(1, 640), between(1, 360), between(0, 4) == 0});
        }
    }
    inputs.push_back({members + 1, 0, 0, 64, 36});
    std::shuffle(inputs.begin(), inputs.end(), mRandom);
    return inputs;
}

}  // namespace mediatesting
