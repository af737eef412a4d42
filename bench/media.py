#!/usr/bin/env python3
"""Mixes three videos of 640 x 360, each with a tone, into one of 1280 x 720 at 20 fps and 1.5 Mbit/s, and prints the
resources used.

    media.py vexalive|ffmpeg --vexalive PROGRAM

Both contenders, the worker of the local service and an FFmpeg filter graph with a fixed layout, read the streams of
the members from the same origin and publish the mix there. Both use the same encoder with the same settings.
"""

import argparse
import json
import pathlib
import subprocess
import sys
import threading
import time

import service

SECONDS = 9
BIZ_ID, ROOM = 8888, "4711"
POSITIONS = ((0, 0), (640, 0), (320, 360))
WIDTH, HEIGHT, FRAME_RATE, BITRATE, SECONDS_OF_GOP = 1280, 720, 20, 1500, 2


def stream_id(number):
    return f"{BIZ_ID}_{number:032x}"


def mix_body():
    inputs = [{"input_stream_id": "canvas1",
               "layout_params": {"image_layer": 1, "input_type": 3, "image_width": WIDTH, "image_height": HEIGHT,
                                 "location_x": 0, "location_y": 0, "color": "0x000000"}}]
    for number, (x, y) in enumerate(POSITIONS, 1):
        inputs.append({"input_stream_id": stream_id(number),
                       "layout_params": {"input_type": 0, "image_layer": number + 1, "image_width": 640,
                                         "image_height": 360, "location_x": x, "location_y": y}})
    return {
        "appid": 1250000000,
        "domain": f"{BIZ_ID}.{service.PUSH_DOMAIN}",
        "event_id": 4289097,
        "input_stream_list": inputs,
        "interface": "set_live_mix_transcoding",
        "output_param": {"output_stream_id": stream_id(1), "output_stream_type": 0, "output_stream_bitrate": BITRATE,
                         "output_stream_gop": SECONDS_OF_GOP, "output_stream_frame_rate": FRAME_RATE,
                         "output_audio_sample_rate": 48000, "output_audio_bitrate": 64, "output_audio_channels": 2,
                         "output_sei": "{}"},
        "path": "live",
        "session_id": stream_id(1),
        "timestamp": 35184,
        "use_mix_crop_center": 1,
    }


def member(url, number):
    return subprocess.Popen(
        ["ffmpeg", "-loglevel", "error", "-re", "-f", "lavfi", "-i", f"testsrc2=s=640x360:r={FRAME_RATE}",
         "-re", "-f", "lavfi", "-i", f"sine={220 * number}:sample_rate=48000", "-c:v", "libx264", "-preset", "veryfast",
         "-tune", "zerolatency", "-pix_fmt", "yuv420p", "-g", str(FRAME_RATE), "-b:v", "600k", "-c:a", "aac",
         "-f", "flv", url], stdin=subprocess.DEVNULL)


def filter_graph(sources, destination):
    command = ["ffmpeg", "-loglevel", "error"]
    for source in sources:
        command += ["-i", source]
    graph = f"color=black:s={WIDTH}x{HEIGHT}:r={FRAME_RATE}[under0];"
    for i, (x, y) in enumerate(POSITIONS):
        graph += f"[under{i}][{i}:v]overlay={x}:{y}[under{i + 1}];"
    graph += "".join(f"[{i}:a]" for i in range(len(POSITIONS))) + f"amix=inputs={len(POSITIONS)}[audio]"
    command += ["-filter_complex", graph, "-map", f"[under{len(POSITIONS)}]", "-map", "[audio]", "-c:v", "libx264",
                "-preset", "veryfast", "-tune", "zerolatency", "-b:v", f"{BITRATE}k", "-g",
                str(FRAME_RATE * SECONDS_OF_GOP), "-r", str(FRAME_RATE), "-c:a", "aac", "-b:a", "64k", "-f", "flv",
                destination]
    return subprocess.Popen(command, stdin=subprocess.DEVNULL)


def child_of(pid, name):
    """Returns the id of the child process with that name."""
    deadline = time.monotonic() + service.TIMEOUT_SECONDS
    while time.monotonic() < deadline:
        for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
            for child in (task / "children").read_text().split():
                if name in pathlib.Path(f"/proc/{child}/comm").read_text():
                    return int(child)
        time.sleep(0.02)
    sys.exit(f"no process {name}")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("contender", choices=("vexalive", "ffmpeg"))
    parser.add_argument("--vexalive", required=True)
    arguments = parser.parse_args()
    children = []
    with service.serving(arguments.vexalive, "--media") as (address, ca_file, service_pid):
        try:
            origin = service.request(address, ca_file, "GET", "/state")["service"]["origin"]["address"]
            sources = [f"{origin}/live/{stream_id(number)}" for number in range(1, len(POSITIONS) + 1)]
            destination = f"{origin}/mix/{stream_id(1)}"
            children += [member(source, number) for number, source in enumerate(sources, 1)]
            time.sleep(2)  # after this time, all members publish
            watcher = subprocess.Popen(  # waits for a publisher, then writes the video to stdout
                ["gst-launch-1.0", "-q", "rtmp2src", f"location={destination}", "!", "flvdemux", "name=streams",
                 "streams.video", "!", "fdsink", "async=false", "streams.audio", "!", "fakesink",
                 "async=false"], stdout=subprocess.PIPE)
            children.append(watcher)
            if arguments.contender == "vexalive":
                path = service.path_of("set_live_mix_transcoding")
                service.expect_acceptance(address, ca_file, path, json.dumps(mix_body()))
                requested = time.monotonic()
                pid = child_of(service_pid, "vexalive-media")
            else:
                requested = time.monotonic()
                children.append(filter_graph(sources, destination))
                pid = children[-1].pid
            watcher.stdout.read(1)
            print(f"first_frame_ms\t{(time.monotonic() - requested) * 1e3}", flush=True)
            threading.Thread(target=watcher.stdout.read, daemon=True).start()  # reads the whole stream, like a player
            time.sleep(2)
            started, used = time.monotonic(), service.cpu_seconds(pid)
            time.sleep(SECONDS)
            print(f"cpu_percent\t{(service.cpu_seconds(pid) - used) / (time.monotonic() - started) * 100}")
            print(f"peak_resident_bytes\t{service.peak_resident_bytes(pid)}")
        finally:
            for child in children:
                child.kill()
                child.wait()


if __name__ == "__main__":
    main()
