#ifndef VEXALIVE_COMMON_RESULT_H
#define VEXALIVE_COMMON_RESULT_H

#include <string>
#include <system_error>
#include <tl/expected.hpp>
#include <utility>

namespace vexalive {

/// Why an operation failed, as a message for the user: what is wrong, where, what is allowed, and what to do.
struct Error {
    std::string message;
};

/// The value of an operation, or its error. `E` is a struct other than Error if callers need more than a message.
template <class T, class E = Error>
using Result = tl::expected<T, E>;

/// For `return failure("...")` in a function that returns a Result.
inline tl::unexpected<Error> failure(std::string message) {
    return tl::unexpected<Error>(Error{std::move(message)});
}

/// The message of `reason`, a value of errno.
inline std::string systemMessage(int reason) {
    return std::generic_category().message(reason);
}

}  // namespace vexalive

#endif
