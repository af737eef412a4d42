#include <fontconfig/fontconfig.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

namespace {

bool isPangosThread(const std::filesystem::path& task) {
    std::string name;
    std::getline(std::ifstream(task / "comm"), name);
    return name.compare(0, 7, "[pango]") == 0;
}

}  // namespace

// Prevents false reports of the leak check. Pango searches fonts on its own threads, which own fonts until they end and
// cannot be joined; so main() waits for them. fontconfig frees its font list only in FcFini().
int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    const int result = RUN_ALL_TESTS();
    const std::filesystem::path tasks = "/proc/self/task";
    while (std::any_of(std::filesystem::directory_iterator(tasks), {}, isPangosThread)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    FcFini();
    return result;
}
