#include "tools/Secrets.h"

#include <algorithm>
#include <string_view>

namespace vexalive {

constexpr size_t kMinSecret = 4;  // bytes

void Secrets::add(const std::string& value) {
    if (value.size() >= kMinSecret) {
        mValues.push_back(value);
        std::sort(mValues.begin(), mValues.end(),
                  [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
    }
}

std::string Secrets::hide(std::string text) const {
    constexpr std::string_view kHidden = "[hidden]";
    for (const std::string& value : mValues) {
        for (size_t at = text.find(value); at != std::string::npos; at = text.find(value, at + kHidden.size())) {
            text.replace(at, value.size(), kHidden);
        }
    }
    return text;
}

}  // namespace vexalive
