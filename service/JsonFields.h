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

/// The outcome of a check in many steps: the first refusal counts, and later ones are dropped. What is read after a
/// refusal has default values, so that a check may go on without asking after each step.
class Validation {
public:
    /// The refusal's message is "FIELD: REASON".
    void refuse(int code, const std::string& field, const std::string& reason);

    bool hasFailed() const { return mRefusal.has_value(); }
    const std::optional<Refusal>& refusal() const { return mRefusal; }

private:
    std::optional<Refusal> mRefusal;
};

/// What was found, for a message: cut short, and ASCII whatever it holds.
std::string excerpt(std::string_view text);  ///< in quotes
std::string excerptOf(const nlohmann::json& value);

/// "an integer from 0 to 10", or "the integer 0".
std::string allowedRange(int64_t lowest, int64_t highest);

/// Reads a JSON object that others wrote. Refuses what is no object, nested too deep, or has a key twice; an empty
/// object then.
nlohmann::json readObject(const std::string& text, Validation& validation);

/// Strict reading of one object. The fields that were read are known; refuseOthers() refuses the rest.
class Fields {
public:
    /// `object` and `validation` must outlive this. `path` names the object in refusals; empty for the top.
    Fields(const nlohmann::json& object, std::string path, Validation& validation);

    bool has(const char* key) const;
    size_t count() const;
    std::string path(const char* key) const;
    void refuse(int code, const char* key, const std::string& reason);

    // Each refuses a field that is missing, of another type or outside of its range, and returns a default value then.
    const nlohmann::json& need(const char* key);  ///< of any type
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
