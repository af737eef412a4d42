// Secrets are never shown. common/Text.h has what else makes a string from outside fit to be shown.

#ifndef VEXALIVE_TOOLS_TEXT_H
#define VEXALIVE_TOOLS_TEXT_H

#include <string>
#include <vector>

#include "common/Text.h"

namespace vexalive {

// Values that are never to be shown. One shorter than four bytes is not looked for: it would be found everywhere.
class Secrets {
public:
    void add(const std::string& value);

    // The text with "[hidden]" wherever one of the values stands.
    std::string hide(std::string text) const;

private:
    std::vector<std::string> mValues;  // the longest first, so that none leaves a piece of another
};

}  // namespace vexalive

#endif
