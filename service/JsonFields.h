#ifndef VEXALIVE_SERVICE_JSON_FIELDS_H
#define VEXALIVE_SERVICE_JSON_FIELDS_H

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "service/Refusal.h"

namespace vexalive {

/// The result of a check with several steps. It stores the first refusal and ignores later ones. Fields returns
/// defaults for refused values, so a check need not test for failure after each step.
class Validation {
public:
    /// The refusal's message is "FIELD: REASON".
    void refuse(int code, const std::string& field, const std::string& reason);

    bool hasFailed() const { return mRefusal.has_value(); }
    const std::optional<Refusal>& refusal() const { return mRefusal; }

private:
    std::optional<Refusal> mRefusal;
};

/// Format an invalid value for a message: truncated, and escaped to ASCII. Strings are put in quotes.
std::string excerpt(std::string_view text);
std::string excerptOf(const nlohmann::json& value);

/// The allowed values for a message: "an integer from 0 to 10", or "the integer 0".
std::string allowedRange(int64_t lowest, int64_t highest);

/// Parses an untrusted JSON object. If `text` is not an object, is nested too deep or has a key twice, refuses it and
/// returns an empty object.
nlohmann::json readObject(const std::string& text, Validation& validation);

/// Reads the fields of one JSON object and checks them strictly. refuseOthers() refuses all fields that were not read.
class Fields {
public:
    /// `object` and `validation` must outlive this object. `path` is the path of `object` in refusals; empty for the
    /// whole body.
    Fields(const nlohmann::json& object, std::string path, Validation& validation);

    bool has(const char* key) const;
    size_t count() const;
    std::string path(const char* key) const;
    void refuse(int code, const char* key, const std::string& reason);

    // Each function reads one field. If it is missing, has another type or is out of range, the function refuses it and
    // returns a default value.
    const nlohmann::json& require(const char* key);  ///< a field of any type
    std::string text(const char* key);
    int64_t integer(const char* key, int64_t lowest, int64_t highest);
    bool flag(const char* key);
    Fields object(const char* key);
    const nlohmann::json& array(const char* key);

    void refuseOthers() const;

private:
    const nlohmann::json& mObject;
    std::string mPath;
    Validation& mValidation;
    std::set<std::string> mKnown;
};

}  // namespace vexalive

#endif
