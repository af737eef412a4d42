"""The benchmarks of docs/performance.md, as data.

A row is one benchmark and one table. It has contenders: commands that print lines of the form `figure<TAB>value`. The
first contender is `vexalive`; the others are its references. A figure has a label, a unit, and the direction in which
values are better. It can have a target: a ratio of vexalive to another contender, a difference, or an absolute value.
"""

import dataclasses

LESS, MORE = "less", "more"


@dataclasses.dataclass
class Figure:
    key: str
    label: str
    unit: str = ""
    scale: float = 1.0  # the printed value is the measured value times this factor
    better: str = LESS
    ratios: dict = dataclasses.field(default_factory=dict)  # target: contender -> ratio to its value
    ceiling: float = None  # target: the highest allowed value, before scaling
    beyond: dict = dataclasses.field(default_factory=dict)  # target: contender -> allowed difference to its value
    constants: tuple = ()  # contenders that are compared by difference instead of ratio
    of: tuple = None  # the contenders that have this figure; None: all
    noisy: bool = False  # printed, but not compared between runs

    def meets_ratio(self, contender, ratio):
        return ratio <= self.ratios[contender] if self.better == LESS else ratio >= self.ratios[contender]


@dataclasses.dataclass
class Row:
    name: str
    title: str
    contenders: dict  # name -> command; run.py defines the placeholders {…}
    figures: list
    rounds: int = 7
    separate_processors: bool = False  # the client runs on the first processor, the server on the last
    keep_awake: bool = False  # keep all processors busy: the cost of waking one depends on the host
    timed: bool = False  # the figures are the time, CPU and memory of the command itself


def program(name, *contenders, part=None):
    return {each: ["{build}/bench/bench_" + name, each] + ([part] if part else []) for each in contenders}


MICROSECONDS = {"unit": "µs"}
BYTES_IN_KIB = {"unit": "KiB", "scale": 1 / 1024}
BYTES_IN_MIB = {"unit": "MiB", "scale": 1 / (1 << 20)}

PENDING = (1_000, 10_000, 100_000, 1_000_000)
USERS = (1, 2, 4, 8, 16)

ROWS = [
    Row(
        "loop",
        "Post a task and return its future",
        program("loop", "vexalive", "asio", "libuv", "floor"),
        [
            Figure("tasks_per_second_1_poster", "tasks posted by 1 thread", "million/s", 1e-6, MORE,
                   {"asio": 1.2, "libuv": 1.0, "floor": 1.0}),
            Figure("tasks_per_second_4_posters", "tasks posted by 4 threads", "million/s", 1e-6, MORE,
                   {"asio": 1.2, "libuv": 1.0, "floor": 1.0}),
            Figure("latency_us_p50", "idle loop: from post to start of task, p50",
                   ratios={"asio": 1.0, "libuv": 1.0}, **MICROSECONDS),
            Figure("latency_us_p99", "idle loop: from post to start of task, p99", noisy=True, **MICROSECONDS),
            Figure("allocations_per_post", "allocations per post", ceiling=2.0),
        ],
        rounds=51,
    ),
    Row(
        "timer",
        "Post a delayed task while one is pending",
        program("timers", "vexalive", "asio", "libuv", part="one"),
        [
            Figure("insert_ns_1_pending", "insert", "ns", ratios={"asio": 1.0, "libuv": 1.0}),
            Figure("insert_ns_earliest", "insert of the earliest task; wakes the worker", "ns",
                   ratios={"asio": 1.0, "libuv": 1.0}),
        ],
        rounds=81,
    ),
    Row(
        "timers",
        "Post a delayed task while many are pending",
        program("timers", "vexalive", "asio", "libuv", part="many"),
        [
            Figure(f"insert_ns_{pending}_pending", f"insert, {pending:,} pending", "ns",
                   ratios={"asio": 1.0, "libuv": 1.0})
            for pending in PENDING
        ],
        rounds=21,
    ),
    Row(
        "late",
        "How late a delayed task starts",
        program("timers", "vexalive", "asio", "libuv", part="late"),
        [
            Figure("lateness_us_p50", "p50", ratios={"libuv": 1.0}, beyond={"asio": 0}, constants=("asio",),
                   **MICROSECONDS),
            Figure("lateness_us_p99", "p99", noisy=True, **MICROSECONDS),
            # libuv rounds to milliseconds, which hides the slack.
            Figure("lateness_without_slack_us_p50", "p50, timer slack off", ratios={"asio": 1.0},
                   of=("vexalive", "asio"), **MICROSECONDS),
        ],
        rounds=35,
    ),
    Row(
        "request",
        "One relay start on an open connection",
        program("request", "vexalive", "easy", "multi"),
        [
            Figure("cpu_us_per_request", "CPU time, user and system", ratios={"multi": 1.3, "easy": 1.7},
                   **MICROSECONDS),
            Figure("wall_us_p50", "from the start call to the listener call, p50", beyond={"easy": 80}, **MICROSECONDS),
            Figure("wall_us_p99", "from the start call to the listener call, p99", noisy=True, **MICROSECONDS),
        ],
        rounds=31,
        separate_processors=True,
    ),
    Row(
        "concurrent_start",
        "1,000 adapters start relays at the same time, without an open connection",
        program("concurrent_start", "vexalive", "multi"),
        [
            Figure("wall_ms", "from the first start call to the last listener call", "ms", ratios={"multi": 1.3}),
            Figure("cpu_ms", "CPU time, user and system", "ms"),
            Figure("connections", "connections", ceiling=1),
            Figure("threads", "threads"),
            Figure("resident_bytes_each", "memory per adapter, with its thread", ratios={"multi": 1.3}, **BYTES_IN_KIB),
        ],
        rounds=41,
    ),
    Row(
        "idle",
        "One unused adapter, mean of 10,000",
        program("idle", "vexalive"),
        [
            Figure("bytes_per_adapter", "memory", ceiling=4096, **BYTES_IN_KIB),
            Figure("construct_us", "time to construct", **MICROSECONDS),
            Figure("destroy_us", "time to destroy", **MICROSECONDS),
            Figure("threads_added", "threads", ceiling=0),
            Figure("descriptors_added", "descriptors", ceiling=0),
        ],
        rounds=5,
    ),
    Row(
        "bodies",
        "Build a request body, a description or an id",
        program("bodies", "vexalive", "handwritten"),
        [
            *(
                Figure(f"mix_us_{users}_user{'s' if users > 1 else ''}",
                       f"body of a mix of {users} user{'s' if users > 1 else ''}", ratios={"handwritten": 1.0},
                       **MICROSECONDS)
                for users in USERS
            ),
            Figure("report_us_16_users", "description of a mix of 16 users", ratios={"handwritten": 1.0},
                   **MICROSECONDS),
            Figure("stream_id_us", "stream id", ratios={"handwritten": 1.0}, **MICROSECONDS),
        ],
        rounds=15,
    ),
    Row(
        "size",
        "Size of the code",
        {"vexalive": ["{python}", "bench/size.py", "{build}"]},
        [
            Figure("adapter_text_bytes", "text sections of vexalive::adapter", ceiling=160 * 1024, **BYTES_IN_KIB),
            Figure("program_bytes", "examples/relay.cpp, linked and stripped", ceiling=1 << 20, **BYTES_IN_KIB),
        ],
        rounds=1,
    ),
    Row(
        "cold",
        "A process that makes one relay start and exits",
        {
            "vexalive": ["{build}/bench/bench_cold", "vexalive"],
            "curl": ["curl", "-sS", "--http2", "--cacert", "{ca}", "-H", "Content-Type: application/json", "-o",
                     "/dev/null", "--data", "{body}", "{url}"],
        },
        [
            Figure("wall_ms", "elapsed time", "ms", ratios={"curl": 1.2}),
            Figure("cpu_ms", "CPU time, user and system", "ms"),
            Figure("peak_resident_bytes", "memory, peak", **BYTES_IN_MIB),
        ],
        rounds=101,
        separate_processors=True,
        timed=True,
    ),
    Row(
        "service",
        "The local service under load, 16 connections",
        {
            "vexalive": ["{python}", "bench/service.py", "vexalive", "--vexalive", "{build}/tools/vexalive"],
            "nginx": ["{python}", "bench/service.py", "nginx", "--address", "{address}", "--ca-file", "{ca}", "--pid",
                      "{server_pid}"],
        },
        [
            Figure("requests_per_second", "throughput, requests", "thousand/s", 1e-3, MORE),
            Figure("latency_us_p99", "latency, p99", "ms", 1e-3, noisy=True),
            Figure("server_cpu_us_per_request", "CPU time of the server per request", **MICROSECONDS),
        ],
        rounds=25,
    ),
    Row(
        "others",
        "One call, compared with clients for Node.js",
        {
            "vexalive": ["{build}/bench/bench_request", "vexalive"],
            "livekit-server-sdk": ["node", "{build}/npm/livekit.mjs", "https://{address}", "1000"],
            "client-ivs-realtime": ["node", "{build}/npm/ivs.mjs", "https://{address}", "1000"],
        },
        [
            Figure("cpu_us_per_request", "CPU time, user and system", "µs",
                   ratios={"livekit-server-sdk": 0.1, "client-ivs-realtime": 0.1}),
            Figure("wall_us_p50", "elapsed time, p50", "µs"),
            Figure("peak_resident_bytes", "memory, peak, with shared libraries",
                   ratios={"livekit-server-sdk": 0.1, "client-ivs-realtime": 0.1}, **BYTES_IN_MIB),
            Figure("anonymous_bytes", "memory, anonymous pages",
                   ratios={"livekit-server-sdk": 0.1, "client-ivs-realtime": 0.1}, **BYTES_IN_MIB),
        ],
        rounds=19,
        separate_processors=True,
        keep_awake=True,
    ),
    Row(
        "media",
        "A mix of three videos, compared with an FFmpeg filter graph",
        {
            each: ["{python}", "bench/media.py", each, "--vexalive", "{build}/tools/vexalive"]
            for each in ("vexalive", "ffmpeg")
        },
        [
            Figure("cpu_percent", "CPU use, of one processor", "%", ratios={"ffmpeg": 1.5}),
            Figure("peak_resident_bytes", "memory, peak", **BYTES_IN_MIB),
            Figure("first_frame_ms", "from the response to the first frame", "ms", ceiling=2000, noisy=True),
        ],
        rounds=5,
        keep_awake=True,
    ),
]
