#ifndef VEXALIVE_TOOLS_SECRETS_H
#define VEXALIVE_TOOLS_SECRETS_H

#include <string>
#include <vector>

namespace vexalive {

// Values that no output may show. Values shorter than four bytes are ignored: they would match everywhere.
class Secrets {
public:
    void add(const std::string& value);

    // Replaces each value in `text` with "[hidden]".
    std::string hide(std::string text) const;

private:
    std::vector<std::string> mValues;  // the longest first, because a value may contain another value
};

}  // namespace vexalive

#endif
