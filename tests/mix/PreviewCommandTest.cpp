#include <gmock/gmock.h>
#include <unistd.h>

#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Com/LiveRequests.h"
#include "tests/mix/MixTesting.h"
#include "tests/mix/SvgDocument.h"
#include "tools/Command.h"
#include "tools/ExitStatus.h"

namespace vexalive {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class PreviewCommandTest : public testing::Test {
protected:
    PreviewCommandTest() {
        unsetenv("VEXALIVE_ROOM");
        unsetenv("VEXALIVE_USER");
        std::filesystem::create_directories(mFolder);
    }
    ~PreviewCommandTest() override { std::filesystem::remove_all(mFolder); }

    int run(std::vector<std::string> arguments) {
        CLI::App tool;
        const Command command = addPreviewCommand(tool);
        std::vector<const char*> argv = {"vexalive", "preview"};
        for (const std::string& argument : arguments) {
            argv.push_back(argument.c_str());
        }
        tool.parse(static_cast<int>(argv.size()), argv.data());
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const Result<int> status = command.run();
        mUsage = status ? "" : status.error().message;
        mOut = testing::internal::GetCapturedStdout();
        mErr = testing::internal::GetCapturedStderr();
        return status.value_or(kUsage);
    }

    static std::string example(const char* name) { return std::string(EXAMPLES "/") + name + ".json"; }
    std::string in(const std::string& name) const { return mFolder + "/" + name; }

    const std::string mFolder = testing::TempDir() + "preview_command_test_" + std::to_string(getpid());
    std::string mOut;
    std::string mErr;
    std::string mUsage;
};

TEST_F(PreviewCommandTest, AMixThatWouldBeSentIsDrawnAsSvgOrPng) {
    EXPECT_EQ(run({example("two-side-by-side"), "-o", in("a.svg")}), kSucceeded);
    EXPECT_EQ(mOut, in("a.svg") + ": drawn; the adapter would send the mix\n");
    EXPECT_EQ(mErr, "");
    const SvgDocument document(contentOf(in("a.svg")));
    EXPECT_EQ(document.error(), "");
    EXPECT_THAT(document.texts("title"), ElementsAre("two-side-by-side.json"));
    EXPECT_THAT(document.texts("entry-user"), ElementsAre("alice", "bob"));

    EXPECT_EQ(run({example("two-side-by-side"), "--output", in("a.png")}), kSucceeded);
    EXPECT_THAT(contentOf(in("a.png")), StartsWith("\x89PNG"));
}

TEST_F(PreviewCommandTest, RoomAndUserDetermineTheStreamIds) {
    const auto expectOutputStream = [this](const std::vector<std::string>& options, const char* room,
                                           const char* user) {
        std::vector<std::string> arguments = {example("two-side-by-side"), "-o", in("a.svg")};
        arguments.insert(arguments.end(), options.begin(), options.end());
        run(arguments);
        const std::string svg = contentOf(in("a.svg"));
        EXPECT_THAT(svg, HasSubstr("Output stream " + requests::streamId(3891, room, user, true)));
        EXPECT_THAT(svg, HasSubstr(requests::streamId(3891, room, "bob", true)));
    };
    expectOutputStream({}, "room", "alice");
    expectOutputStream({"--room", "4711", "--user", "zoe"}, "4711", "zoe");
    setenv("VEXALIVE_ROOM", "r", 1);
    setenv("VEXALIVE_USER", "u", 1);
    expectOutputStream({}, "r", "u");
}

TEST_F(PreviewCommandTest, ARefusedMixIsDrawn) {
    EXPECT_EQ(run({example("refused"), "-o", in("a.svg")}), kRefused);
    EXPECT_EQ(mOut, in("a.svg") + ": drawn, but the adapter would refuse the mix\n");
    EXPECT_EQ(mErr, example("refused") +
                        ": refused: field mixUsersArray[1].zOrder is 1, the same as that of mixUsersArray[0]\n" +
                        example("refused") + ": warning: field mixUsersArray[2].rect lies partly outside the canvas\n");
    EXPECT_EQ(SvgDocument(contentOf(in("a.svg"))).ofKind("refusal").size(), 1U);
}

TEST_F(PreviewCommandTest, AnInvalidFileIsReportedAndNotDrawn) {
    std::ofstream(in("m.json")) << "{\"appId\": 1, \"bizId\": \"\\u009b\xc2\x9b\", \"mixUsersArray\": []}";
    EXPECT_EQ(run({in("m.json"), "-o", in("a.svg")}), kUsage);
    EXPECT_EQ(mErr, in("m.json") +
                        ":1:23: field bizId: expected an integer from -2147483648 to 2147483647, found "
                        "\"\\u009b\\xc2\\x9b\"\n");
    EXPECT_FALSE(std::filesystem::exists(in("a.svg")));

    EXPECT_EQ(run({in("none.json"), "-o", in("a.svg")}), kUsage);
    EXPECT_EQ(mErr, in("none.json") + ": cannot be opened: No such file or directory\n");
}

TEST_F(PreviewCommandTest, OtherImageFormatsAreUsageErrors) {
    for (const char* name : {"a.jpg", "a", ".svg", "a.SVG", "a.svg.", "svg"}) {
        EXPECT_EQ(run({example("refused"), "-o", name}), kUsage) << name;
        EXPECT_EQ(mUsage, std::string("-o is \"") + name + "\": must end in .svg or .png");
    }
    run({example("refused")});
    EXPECT_THAT(mUsage, StartsWith("-o is missing"));
    run({"-o", in("a.svg")});
    EXPECT_THAT(mUsage, StartsWith("FILE is missing"));
}

TEST_F(PreviewCommandTest, AFileThatCannotBeWrittenIsAnError) {
    EXPECT_EQ(run({example("refused"), "-o", in("no/such/folder.svg")}), kUsage);
    EXPECT_EQ(mUsage, "-o is \"" + in("no/such/folder.svg") + "\": cannot be written: No such file or directory");

    std::filesystem::create_symlink("/dev/full", in("full.png"));
    EXPECT_EQ(run({example("refused"), "-o", in("full.png")}), kUsage);
    EXPECT_THAT(mUsage, EndsWith("cannot be written: No space left on device"));
}

}  // namespace vexalive
