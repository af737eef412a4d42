-- For wrk: each request posts the body that stands after "--" on the command line.

wrk.method = "POST"
wrk.headers["Content-Type"] = "application/json"

function init(arguments)
    wrk.body = arguments[1]
end

-- One line for service.py. Times in microseconds; an HTTP status other than 2xx and 3xx is an error.
function done(summary, latency)
    local errors = summary.errors
    print("measured", summary.requests, summary.duration, latency:percentile(99),
          errors.connect + errors.read + errors.write + errors.status + errors.timeout)
end
