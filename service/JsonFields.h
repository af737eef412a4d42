// Strict reading of JSON that others wrote: a text becomes an object or a refusal, and so does each of its fields.
//
// Used by the checks of requests and of faults. Everything here throws Refusal; the two checks catch it.

#ifndef VEXALIVE_SERVICE_JSON_FIELDS_H
#define VEXALIVE_SERVICE_JSON_FIELDS_H

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <set>
#include <string>
#include <string_view>

namespace vexalive {

// Why something was not accepted.
struct Refusal {
    int code;             // one of the constants below
    std::string field;    // a path: "output_param.output_sei", "input_stream_list[2].layout_params.image_layer",
                          // "query: sdkappid", "body"
    std::string message;  // the field, what was found (cut short, ASCII) and what is allowed

    // The codes. None is one that a client takes for a reason to try again (1, 3, 505, 10017).
    static constexpr int kQuery = 4001;        // the query is incomplete or malformed
    static constexpr int kUnreadable = 4002;   // the body is no JSON object, nested too deep, or has a key twice
    static constexpr int kMissing = 4003;      // a field is missing
    static constexpr int kUnknown = 4004;      // a field is not known here
    static constexpr int kType = 4005;         // a field has the wrong JSON type
    static constexpr int kValue = 4006;        // a field's value is not allowed
    static constexpr int kNotRunning = 4007;   // nothing to remove or cancel
    static constexpr int kFull = 4008;         // the service holds as many relays or mixes as it can
    static constexpr int kUnsupported = 4009;  // with media: a destination that cannot be relayed to
    static constexpr int kUnavailable = 4010;  // with media: no worker could be started
};

[[noreturn]] void refuse(int code, const std::string& field, const std::string& reason);

// What was found, for a message: cut short, and ASCII whatever it holds.
std::string excerpt(std::string_view text);  // quoted
std::string excerptOf(const nlohmann::json& value);

// The JSON object that `text` is. Bounded in depth; refuses doubled keys.
nlohmann::json readObject(const std::string& text);

// The fields of one object. Each field that is asked for is known; refuseOthers() refuses the rest.
class Fields {
public:
    // `object` must outlive this. `path` names it in refusals; empty for the top.
    Fields(const nlohmann::json& object, std::string path);

    bool has(const char* key) const;
    size_t count() const;
    std::string path(const char* key) const;

    std::string text(const char* key);
    int64_t integer(const char* key, int64_t lowest, int64_t highest);
    bool flag(const char* key);
    Fields object(const char* key);
    const nlohmann::json& array(const char* key);

    void refuseOthers() const;

private:
    const nlohmann::json& need(const char* key);

    const nlohmann::json& mObject;
    std::string mPath;
    std::set<std::string> mKnown;
};

}  // namespace vexalive

#endif
