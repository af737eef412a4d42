"""The server of the benchmarks: nginx with TLS and HTTP/2. The response to each path is fixed.

    with ReferenceServer(folder) as server: server.address, server.ca_file
"""

import json
import os
import socket
import subprocess
import time

CONFIGURATION = """
{user}
daemon off;
worker_processes 1;
pid nginx.pid;
error_log error.log;
events {{ worker_connections 4096; }}
http {{
  access_log off;
  client_body_temp_path body; proxy_temp_path proxy; fastcgi_temp_path fastcgi;
  uwsgi_temp_path uwsgi; scgi_temp_path scgi;
  ssl_certificate server.pem; ssl_certificate_key server.key;
  ssl_protocols TLSv1.2 TLSv1.3;
  keepalive_requests 100000000;
  http2_max_concurrent_streams 1000;
  default_type application/json;
  server {{
    listen 127.0.0.1:{port} ssl http2 backlog=4096;
{locations}
  }}
}}
"""

# By path: responses that the adapter and the other clients treat as success.
RESPONSES = {
    "/v3/liveinterface/": {"code": 0, "message": "ok"},
    "/twirp/livekit.Egress/StartRoomCompositeEgress": {
        "egress_id": "EG_k3pq8WzXo2Tb",
        "room_id": "RM_h5dYc7uR1nVs",
        "room_name": "4711",
        "status": "EGRESS_STARTING",
        "started_at": "0",
        "ended_at": "0",
        "updated_at": "1706702400000000000",
        "error": "",
        "room_composite": {
            "room_name": "4711",
            "layout": "grid",
            "audio_only": False,
            "video_only": False,
            "custom_base_url": "",
            "stream_outputs": [{"protocol": "RTMP", "urls": ["rtmp://cdn.example/live/{mai...ain}"]}],
        },
        "stream_results": [
            {
                "url": "rtmp://cdn.example/live/{mai...ain}",
                "started_at": "0",
                "ended_at": "0",
                "duration": "0",
                "status": "ACTIVE",
                "error": "",
            }
        ],
    },
    "/StartComposition": {
        "composition": {
            "arn": "arn:aws:ivs:eu-central-1:123456789012:composition/mXk4Qp7RtZ2a",
            "stageArn": "arn:aws:ivs:eu-central-1:123456789012:environment/w8Ns3LdVb6Yc",
            "state": "STARTING",
            "layout": {
                "grid": {
                    "featuredParticipantAttribute": "",
                    "omitStoppedVideo": False,
                    "videoAspectRatio": "VIDEO",
                    "videoFillMode": "COVER",
                    "gridGap": 2,
                }
            },
            "destinations": [
                {
                    "id": "AbCdEf123456",
                    "state": "STARTING",
                    "configuration": {
                        "name": "",
                        "channel": {
                            "channelArn": "arn:aws:ivs:eu-central-1:123456789012:channel/h2Jf9TgKq5Pe",
                            "encoderConfigurationArn":
                                "arn:aws:ivs:eu-central-1:123456789012:encoder-configuration/z7Bm1XcVn4Ru",
                        },
                    },
                }
            ],
            "tags": {},
            "startTime": "2024-01-31T12:00:00Z",
        }
    },
}


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def make_certificates(folder):
    """Makes a certificate authority and a server certificate for 127.0.0.1 and localhost."""

    def openssl(*arguments):
        subprocess.run(["openssl", *arguments], cwd=folder, check=True, capture_output=True)

    key = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2")
    openssl("req", "-x509", *key, "-keyout", "ca.key", "-out", "ca.pem", "-subj", "/CN=benchmark authority",
            "-addext", "basicConstraints=critical,CA:TRUE", "-addext", "keyUsage=critical,keyCertSign")
    openssl("req", "-x509", *key, "-keyout", "server.key", "-out", "server.pem", "-subj", "/CN=localhost",
            "-addext", "subjectAltName=IP:127.0.0.1,DNS:localhost", "-addext", "basicConstraints=critical,CA:FALSE",
            "-CA", "ca.pem", "-CAkey", "ca.key")


class ReferenceServer:
    def __init__(self, folder):
        self.folder = folder
        self.port = free_port()
        self.address = f"127.0.0.1:{self.port}"
        self.ca_file = os.path.join(folder, "ca.pem")
        self.process = None

    def __enter__(self):
        make_certificates(self.folder)
        bodies = {path: json.dumps(response, separators=(",", ":")) for path, response in RESPONSES.items()}
        locations = "\n".join(f"    location {path} {{ return 200 '{body}'; }}" for path, body in bodies.items())
        with open(os.path.join(self.folder, "nginx.conf"), "w", encoding="utf-8") as file:
            user = "user root;" if os.getuid() == 0 else ""
            file.write(CONFIGURATION.format(user=user, port=self.port, locations=locations))
        log = os.path.join(self.folder, "error.log")
        self.process = subprocess.Popen(["/usr/sbin/nginx", "-p", self.folder + "/", "-c", "nginx.conf", "-e", log])
        deadline = time.monotonic() + 20
        while True:
            try:
                socket.create_connection(("127.0.0.1", self.port), 1).close()
                return self
            except OSError:
                if self.process.poll() is not None or time.monotonic() > deadline:
                    raise RuntimeError(f"nginx does not serve: see {self.folder}/error.log") from None
                time.sleep(0.02)

    def move_to(self, processors):
        """Restricts all processes of the server to these processors."""
        with open(f"/proc/{self.process.pid}/task/{self.process.pid}/children", encoding="ascii") as file:
            for pid in [self.process.pid, *map(int, file.read().split())]:
                os.sched_setaffinity(pid, processors)

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()
