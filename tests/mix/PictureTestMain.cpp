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

// Pango looks for fonts on threads of its own, which outlive the drawing that asked, hold fonts until they are done,
// and cannot be waited for in another way. The fonts' catalogue is fontconfig's: it hides its pointers from a leak
// check, and frees it only when told.
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
