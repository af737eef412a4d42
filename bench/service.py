#!/usr/bin/env python3
"""Puts the local service, or nginx with a fixed answer, under the load of wrk, and prints what it bore.

    service.py vexalive --vexalive PROGRAM
    service.py nginx --address HOST:PORT --ca-file FILE [--pid MASTER]

Every connection starts one relay again and again. The service checks each request, keeps it in its state and writes a
line about it; nginx does not look at it.
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
PATIENCE_SECONDS = 20


@contextlib.contextmanager
def serving(program, *options):
    """Runs the local service on a free port: its address, its authority's certificate and its process id."""
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
    patience = time.monotonic() + PATIENCE_SECONDS
    while True:
        with open(path, encoding="utf-8") as file:
            line = file.readline()
        if line.endswith("\n"):
            return line
        if process.poll() is not None or time.monotonic() > patience:
            sys.exit("the service does not start")
        time.sleep(0.01)


def ask(address, ca_file, method, path, body=None):
    context = ssl.create_default_context(cafile=ca_file)
    connection = http.client.HTTPSConnection(address, context=context, timeout=PATIENCE_SECONDS)
    connection.request(method, path, body, {"Content-Type": "application/json"} if body else {})
    response = connection.getresponse()
    answer = response.read().decode()
    connection.close()
    if response.status != 200:
        sys.exit(f"{address}{path}: status {response.status}, {answer}")
    return json.loads(answer)


def expect_acceptance(address, ca_file, path=PATH, body=BODY):
    """wrk does not look at answers, so this does, once before the load and once after it."""
    answer = ask(address, ca_file, "POST", path, body)
    if answer["code"] != 0:
        sys.exit(f"{address} does not accept the request: {answer}")


def run_wrk(address, seconds):
    """Requests answered, seconds, 99th percentile of the latency in microseconds, errors."""
    script = pathlib.Path(__file__).with_name("service.lua")
    command = ["wrk", f"-t{THREADS}", f"-c{CONNECTIONS}", f"-d{seconds}s", "-s", script, f"https://{address}{PATH}"]
    output = subprocess.run([*command, "--", BODY], check=True, stdout=subprocess.PIPE, text=True).stdout
    measured = [line.split("\t")[1:] for line in output.splitlines() if line.startswith("measured\t")]
    requests, microseconds, latency, errors = map(float, measured[0])
    return requests, microseconds / 1e6, latency, errors


def family(pid):
    """A process and all below it."""
    children = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text(encoding="utf-8").split()
    return [pid, *(each for child in children for each in family(child))]


def cpu_seconds(pid):
    def own(process):
        fields = pathlib.Path(f"/proc/{process}/stat").read_text(encoding="utf-8").rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    return sum(map(own, family(pid)))


def peak_resident_bytes(pid):
    def own(process):
        status = pathlib.Path(f"/proc/{process}/status").read_text(encoding="utf-8")
        return int(status.partition("VmHWM:")[2].split()[0]) * 1024

    return sum(map(own, family(pid)))


def measure(address, ca_file, pid):
    expect_acceptance(address, ca_file)
    begun = cpu_seconds(pid) if pid else 0
    requests, seconds, latency, errors = run_wrk(address, SECONDS)
    print(f"requests_per_second\t{requests / seconds:.9g}")
    print(f"latency_us_p99\t{latency:.9g}")
    print(f"errors\t{errors:.9g}")
    if pid:
        print(f"server_cpu_us_per_request\t{(cpu_seconds(pid) - begun) * 1e6 / requests:.9g}")
        print(f"server_peak_resident_bytes\t{peak_resident_bytes(pid)}")
    expect_acceptance(address, ca_file)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    contenders = parser.add_subparsers(dest="contender", required=True)
    vexalive = contenders.add_parser("vexalive")
    vexalive.add_argument("--vexalive", required=True, help="the tool's program")
    nginx = contenders.add_parser("nginx")
    nginx.add_argument("--address", required=True, help="host and port")
    nginx.add_argument("--ca-file", required=True, help="the certificate authority to trust")
    nginx.add_argument("--pid", type=int, help="its master process; with it, CPU time and memory are printed, too")
    options = parser.parse_args()

    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # the service is ended on the way out
    if options.contender == "nginx":
        measure(options.address, options.ca_file, options.pid)
        return
    with serving(options.vexalive) as (address, ca_file, pid):
        measure(address, ca_file, pid)


if __name__ == "__main__":
    main()
