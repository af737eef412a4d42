#!/usr/bin/env python3
"""Sends requests with wrk to the local service, or to nginx with a fixed response, and prints the throughput.

    service.py vexalive --vexalive PROGRAM
    service.py nginx --address HOST:PORT --ca-file FILE [--pid MASTER]

Each connection sends the same relay start repeatedly. The service validates each request, stores it in its state and
logs it. nginx ignores the content.
"""

import argparse
import contextlib
import http.client
import json
import os
import pathlib
import signal
import ssl
import subprocess
import sys
import tempfile
import time

PUSH_DOMAIN = "livepush.example"


def path_of(interface):
    return (
        f"/v3/liveinterface/{interface}"
        "?sdkappid=1400000001&random=4711&usersig=signature-of-the-user&parivMapKey=map-key-of-the-room"
    )


PATH = path_of("add_relay_stream_url")
BODY = json.dumps(
    {
        "appid": 1250000000,
        "dest_stream_url": "rtmp://cdn.example/live/stream",
        "domain": f"8888.{PUSH_DOMAIN}",
        "event_id": 4289097,
        "interface": "add_relay_stream_url",
        "path": "live",
        "stream_id": "8888_9e92756edcfadb201e87dddf8172056d",
        "timestamp": 35184,
        "use_mix_crop_center": 1,
    },
    separators=(",", ":"),
)
THREADS, CONNECTIONS = 2, 16
SECONDS = 1
TIMEOUT_SECONDS = 20


@contextlib.contextmanager
def serving(program, *options):
    """Runs the local service on a free port; yields its address, its CA file and its process id."""
    with tempfile.TemporaryDirectory(prefix="vexalive-bench-") as name:
        folder = pathlib.Path(name)
        with open(folder / "lines", "wb") as lines:
            command = [program, "serve", "--json", "--state-dir", name, "--push-domain", PUSH_DOMAIN, *options]
            process = subprocess.Popen(command, stdout=lines)
        try:
            listening = json.loads(first_line(folder / "lines", process))
            yield listening["service"], listening["caFile"], process.pid
        finally:
            process.terminate()
            process.wait()


def first_line(path, process):
    deadline = time.monotonic() + TIMEOUT_SECONDS
    while True:
        with open(path, encoding="utf-8") as file:
            line = file.readline()
        if line.endswith("\n"):
            return line
        if process.poll() is not None or time.monotonic() > deadline:
            sys.exit("the service does not start")
        time.sleep(0.01)


def request(address, ca_file, method, path, body=None):
    context = ssl.create_default_context(cafile=ca_file)
    connection = http.client.HTTPSConnection(address, context=context, timeout=TIMEOUT_SECONDS)
    connection.request(method, path, body, {"Content-Type": "application/json"} if body else {})
    response = connection.getresponse()
    text = response.read().decode()
    connection.close()
    if response.status != 200:
        sys.exit(f"{address}{path}: status {response.status}, {text}")
    return json.loads(text)


def expect_acceptance(address, ca_file, path=PATH, body=BODY):
    """Checks one response. Call this before and after wrk runs, because wrk does not check responses."""
    response = request(address, ca_file, "POST", path, body)
    if response["code"] != 0:
        sys.exit(f"{address} does not accept the request: {response}")


def run_wrk(address, seconds):
    """Returns the number of requests, the seconds, the 99th percentile of the latency in microseconds, and the number
    of errors."""
    script = pathlib.Path(__file__).with_name("service.lua")
    command = ["wrk", f"-t{THREADS}", f"-c{CONNECTIONS}", f"-d{seconds}s", "-s", script, f"https://{address}{PATH}"]
    output = subprocess.run([*command, "--", BODY], check=True, stdout=subprocess.PIPE, text=True).stdout
    measured = [line.split("\t")[1:] for line in output.splitlines() if line.startswith("measured\t")]
    requests, microseconds, latency, errors = map(float, measured[0])
    return requests, microseconds / 1e6, latency, errors


def process_tree(pid):
    """Returns the ids of a process and its descendants."""
    children = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text(encoding="utf-8").split()
    return [pid, *(each for child in children for each in process_tree(child))]


def cpu_seconds(pid):
    def own(process):
        fields = pathlib.Path(f"/proc/{process}/stat").read_text(encoding="utf-8").rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    return sum(map(own, process_tree(pid)))


def peak_resident_bytes(pid):
    def own(process):
        status = pathlib.Path(f"/proc/{process}/status").read_text(encoding="utf-8")
        return int(status.partition("VmHWM:")[2].split()[0]) * 1024

    return sum(map(own, process_tree(pid)))


def measure(address, ca_file, pid):
    expect_acceptance(address, ca_file)
    started = cpu_seconds(pid) if pid else 0
    requests, seconds, latency, errors = run_wrk(address, SECONDS)
    print(f"requests_per_second\t{requests / seconds:.9g}")
    print(f"latency_us_p99\t{latency:.9g}")
    print(f"errors\t{errors:.9g}")
    if pid:
        print(f"server_cpu_us_per_request\t{(cpu_seconds(pid) - started) * 1e6 / requests:.9g}")
        print(f"server_peak_resident_bytes\t{peak_resident_bytes(pid)}")
    expect_acceptance(address, ca_file)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    contenders = parser.add_subparsers(dest="contender", required=True)
    vexalive = contenders.add_parser("vexalive")
    vexalive.add_argument("--vexalive", required=True, help="path of the vexalive tool")
    nginx = contenders.add_parser("nginx")
    nginx.add_argument("--address", required=True, help="host and port")
    nginx.add_argument("--ca-file", required=True, help="the certificate authority to trust")
    nginx.add_argument("--pid", type=int, help="id of the master process; if given, prints CPU time and memory, too")
    options = parser.parse_args()

    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # sys.exit() runs the clean-up that ends the service
    if options.contender == "nginx":
        measure(options.address, options.ca_file, options.pid)
        return
    with serving(options.vexalive) as (address, ca_file, pid):
        measure(address, ca_file, pid)


if __name__ == "__main__":
    main()
