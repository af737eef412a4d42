-- A script for wrk. Each request is a POST with the body that follows "--" on the command line.

wrk.method = "POST"
wrk.headers["Content-Type"] = "application/json"

function init(arguments)
    wrk.body = arguments[1]
end

-- Prints one line for service.py. Times are in microseconds. An HTTP status other than 2xx and 3xx counts as an error.
function done(summary, latency)
    local errors = summary.errors
    print("measured", summary.requests, summary.duration, latency:percentile(99),
          errors.connect + errors.read + errors.write + errors.status + errors.timeout)
end
