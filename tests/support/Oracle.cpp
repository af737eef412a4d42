#include "support/Oracle.h"

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

namespace oracle {
namespace {

using Json = nlohmann::json;

constexpr int kMaxDepth = 512;  // nesting; a deeper response is unreadable
constexpr int64_t kLowest = std::numeric_limits<int32_t>::min();
constexpr int64_t kHighest = std::numeric_limits<int32_t>::max();

// The parsed response; none if it is unreadable or the JSON value null.
std::optional<Json> parse(const std::string& response) {
    bool isTooDeep = false;
    const auto checkDepth = [&isTooDeep](int outerLevels, Json::parse_event_t event, const Json&) {
        const bool isStart = event == Json::parse_event_t::object_start || event == Json::parse_event_t::array_start;
        isTooDeep = isTooDeep || (isStart && outerLevels >= kMaxDepth);
        return true;
    };
    const Json parsed = Json::parse(response, checkDepth, false);
    if (parsed.is_discarded() || parsed.is_null() || isTooDeep || response.find('\0') != std::string::npos) {
        return std::nullopt;
    }
    return parsed;
}

int64_t codeOf(const Json& value) {
    if (value.is_boolean()) {
        return value.get<bool>() ? 1 : 0;
    }
    if (value.is_number_unsigned()) {
        return static_cast<int64_t>(std::min<uint64_t>(value.get<uint64_t>(), kHighest));
    }
    if (value.is_number_integer()) {
        return std::clamp(value.get<int64_t>(), kLowest, kHighest);
    }
    if (value.is_number_float()) {
        return static_cast<int64_t>(
            std::clamp(value.get<double>(), static_cast<double>(kLowest), static_cast<double>(kHighest)));
    }
    if (!value.is_string()) {
        return -1;
    }
    std::string digits = value.get<std::string>();
    const bool isNegative = digits[0] == '-';
    if (isNegative || digits[0] == '+') {
        digits.erase(0, 1);
    }
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) {
        return -1;
    }
    int64_t number = 0;
    for (const char digit : digits) {
        number = std::min(number * 10 + (digit - '0'), kHighest + 1);
    }
    return std::clamp(isNegative ? -number : number, kLowest, kHighest);
}

}  // namespace

const KindRules& rulesOf(Kind kind) {
    constexpr const char* kMixInterface = "set_live_mix_transcoding";
    static const auto& rules = *new std::vector<KindRules>{
        {"startRelay", "add_relay_stream_url", kRelay, -3321, -3323, -200000, 30, kAddRelay, true, true, {1}},
        {"stopRelay", "remove_relay_stream_url", kRelay, -3321, -3323, -200000, 30, kAddRelay, false, false, {}},
        {"setMix", kMixInterface, kMix, -3322, -3324, -300000, 31, kStartMix, false, false, {3, 505, 10017}},
        {"stopMix", kMixInterface, kMix, -3322, -3324, -300000, 31, kCancelMix, false, false, {}},
    };
    return rules[static_cast<size_t>(kind)];
}

int retryPause(int retry) {
    return retry <= 2 ? 1000 : retry <= 5 ? 2000 : 5000;
}

Evaluation evaluate(Kind kind, int retCode, const std::string& response) {
    const KindRules& rules = rulesOf(kind);
    const std::optional<Json> parsed = parse(response);
    const auto has = [&](const char* key) { return parsed && parsed->is_object() && parsed->contains(key); };
    const bool hasCode = has("code");
    const bool hasErrorCode = has("ErrorCode");
    const int64_t code = hasCode ? codeOf((*parsed)["code"]) : hasErrorCode ? codeOf((*parsed)["ErrorCode"]) : 0;
    const int64_t size = code < 0 ? -code : code;

    Evaluation evaluation;
    evaluation.isRetryable =
        retCode == 1 || !parsed || std::find(rules.retried.begin(), rules.retried.end(), size) != rules.retried.end();
    const auto notify = [&](int64_t listenerCode, std::optional<std::string> message) {
        evaluation.notifications.push_back({rules.name, static_cast<int>(listenerCode), std::move(message)});
    };
    if (retCode != 0) {
        notify(rules.transportCode, "http post return error\uff0c retcode:" + std::to_string(retCode));
        return evaluation;
    }
    if (response.empty()) {
        notify(rules.unreadableCode, "recv message nil");
    }
    if (!parsed) {
        notify(rules.unreadableCode, "recv message can't parse");
    } else if ((hasCode || hasErrorCode) && code == 0) {
        notify(0, hasCode ? "sucess" : "");
    } else if (hasCode || hasErrorCode) {
        const auto message = parsed->find(hasCode ? "message" : "ErrorInfo");
        const bool isMissing = message == parsed->end() || message->is_null();
        std::optional<std::string> expected;
        if (isMissing || message->is_string()) {
            expected = isMissing ? "" : message->get<std::string>();
        }
        notify(std::max<int64_t>(rules.serverBase - size, kLowest), std::move(expected));
    }
    return evaluation;
}

std::string traceSegment(int attemptsLeft, int retCode, const std::string& response) {
    return " [tryHttp:cnt-" + std::to_string(attemptsLeft) + "]retCode:" + std::to_string(retCode) +
           ", respData:" + response;
}

}  // namespace oracle
