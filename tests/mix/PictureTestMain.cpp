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

// Pango searches fonts on its own threads. They outlive the drawing, hold fonts until they end, and cannot be joined.
// fontconfig hides the pointers of its font list from the leak check and frees the list only in FcFini().
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
