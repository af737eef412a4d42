"""Checks docs/openapi.yaml against a running service.

Usage: openapi_test.py TOOL FAKE_WORKER OPENAPI_YAML LIVE_SERVICE_CPP

Each path and method of the service must be described. Real requests and responses (successes, each class of refusal,
every fault) must be valid by the schemas.
"""

import copy
import http.client
import json
import re
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import jsonschema
import yaml

TOOL, FAKE_WORKER, DOCUMENT, SOURCE = sys.argv[1:5]
QUERY = "?sdkappid=1400&random=42&usersig=signature&parivMapKey=mapkey"
STREAM = "8888_" + "0" * 31
JSON_TYPE = {"Content-Type": "application/json"}


def json_schema(node):
    """Converts an OpenAPI 3.0 schema to a JSON schema: "nullable" becomes a type."""
    if isinstance(node, list):
        return [json_schema(each) for each in node]
    if not isinstance(node, dict):
        return node
    result = {key: json_schema(value) for key, value in node.items()}
    return {"anyOf": [result, {"type": "null"}]} if result.pop("nullable", False) else result


def serve_handshakes(listener):
    """The part of an RTMP server that the service checks."""
    while True:
        try:
            client, _ = listener.accept()
        except OSError:
            return
        with client:
            client.recv(1537, socket.MSG_WAITALL)
            client.sendall(b"\x03")


def body(interface, **fields):
    return {"interface": interface, "timestamp": 1, "event_id": 1, "appid": 1400, "path": "live",
            "domain": "8888.push.test", **fields}


def add_relay(**fields):
    return body("add_relay_stream_url", **{"stream_id": STREAM + "1", "use_mix_crop_center": 0,
                                           "dest_stream_url": "rtmp://cdn.test/live/x", **fields})


def remove_relay():
    return body("remove_relay_stream_url", stream_id=STREAM + "1")


def layout(layer, kind, **fields):
    return {"image_layer": layer, "input_type": kind, "image_width": 640, "image_height": 360, "location_x": 0,
            "location_y": 0, **fields}


def start_mix():
    return body("set_live_mix_transcoding", session_id=STREAM + "1", use_mix_crop_center=1,
                output_param={"output_stream_id": STREAM + "1", "output_stream_type": 0, "output_sei": "{}",
                              "output_stream_bitrate": 1500},
                input_stream_list=[
                    {"input_stream_id": "canvas1", "layout_params": layout(1, 3, color="0x000000")},
                    {"input_stream_id": STREAM + "2", "layout_params": layout(2, 0)},
                    {"input_stream_id": STREAM + "3", "layout_params": layout(3, 4)}])


def cancel_mix():
    return body("set_live_mix_transcoding", session_id=STREAM + "1", output_param={"output_stream_id": STREAM + "1"},
                input_stream_list=[{"input_stream_id": STREAM + "1", "layout_params": {"image_layer": 1}}])


class OpenApiTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with open(DOCUMENT, encoding="utf-8") as file:
            cls.document = yaml.safe_load(file)
        cls.resolver = jsonschema.RefResolver("", json_schema(cls.document))
        cls.listener = socket.create_server(("127.0.0.1", 0))
        cls.folder = tempfile.TemporaryDirectory()
        threading.Thread(target=serve_handshakes, args=(cls.listener,), daemon=True).start()
        cls.service = subprocess.Popen(
            [TOOL, "serve", "--json", "--state-dir", cls.folder.name, "--push-domain", "push.test", "--media",
             "--origin", f"rtmp://127.0.0.1:{cls.listener.getsockname()[1]}"],
            env={"VEXALIVE_MEDIA_WORKER": FAKE_WORKER, "PATH": "/usr/bin:/bin"}, stdout=subprocess.PIPE, text=True)
        for line in cls.service.stdout:
            event = json.loads(line)
            if event["event"] == "listening":
                cls.address = event["service"]
                cls.context = ssl.create_default_context(cafile=event["caFile"])
            if event["event"] == "origin":
                break
        threading.Thread(target=cls.service.stdout.read, daemon=True).start()

    @classmethod
    def tearDownClass(cls):
        cls.service.terminate()
        cls.service.wait(20)
        cls.listener.close()
        cls.folder.cleanup()

    def exchange(self, method, path, content=None, headers=None):
        connection = http.client.HTTPSConnection(self.address, timeout=20, context=self.context)
        try:
            connection.request(method, path, content, headers or {})
            response = connection.getresponse()
            return response.status, response.getheader("Content-Type", ""), response.read()
        finally:
            connection.close()

    def validate(self, schema, value):
        jsonschema.Draft4Validator(json_schema(schema), resolver=self.resolver).validate(value)

    def checked(self, method, path, status=200, content=None, headers=None):
        """Returns the response after checking it against the schema of its path, method, status and type."""
        actual, content_type, response = self.exchange(method, path, content, headers)
        self.assertEqual(status, actual, response)
        described = self.document["paths"][path.split("?")[0]][method.lower()]["responses"][str(status)]
        if "$ref" in described:
            described = self.resolver.resolve(described["$ref"])[1]
        media_type = content_type.split(";")[0]
        self.assertIn(media_type, described["content"])
        schema = described["content"][media_type]["schema"]
        if media_type == "application/json":
            value = json.loads(response)
            self.validate(schema, value)
            return value
        if media_type != "image/jpeg":
            self.validate(schema, response.decode())
        return response

    def request(self, content, query=QUERY):
        path = "/v3/liveinterface/" + content["interface"]
        return self.checked("POST", path + query, content=json.dumps(content), headers=JSON_TYPE)

    def request_schema(self, path):
        return self.document["paths"][path]["post"]["requestBody"]["content"]["application/json"]["schema"]

    def eventually(self, condition):
        for _ in range(200):
            if condition():
                return
            time.sleep(0.1)
        self.fail("the condition did not hold within 20 s")

    def test_every_path_and_method_is_described(self):
        with open(SOURCE, encoding="utf-8") as file:
            source = file.read()
        prefix = re.search(r'kInterfacePrefix = "([^"]+)"', source).group(1)
        served = set(re.findall(r'constexpr const char\* k\w+ = "(/[^"]*)"', source)) - {prefix} | {"/"}
        interfaces = self.document["components"]["schemas"]["InterfaceName"]["enum"]
        served |= {prefix + name for name in interfaces}
        self.assertEqual(served, set(self.document["paths"]))
        for path, item in self.document["paths"].items():
            for method in ("GET", "POST", "PUT", "DELETE", "PATCH"):
                status, _, response = self.exchange(method, path, "" if method != "GET" else None)
                self.assertEqual(method.lower() not in item, status == 405, (method, path, status))
                if status == 405:
                    self.validate({"$ref": "#/components/schemas/Message"}, json.loads(response))
        status, _, response = self.exchange("GET", "/other")
        self.assertEqual(404, status)
        self.validate({"$ref": "#/components/schemas/Message"}, json.loads(response))

    def test_accepted_requests_and_the_state_are_valid(self):
        for content in (add_relay(), start_mix(), start_mix(), cancel_mix(), start_mix(), remove_relay(), add_relay()):
            path = "/v3/liveinterface/" + content["interface"]
            self.validate(self.request_schema(path), content)
            self.assertEqual({"code": 0, "message": "ok"}, self.request(content))
        self.eventually(lambda: self.checked("GET", "/state")["mixes"][0]["media"]["state"] == "running")
        state = self.checked("GET", "/state")
        self.assertEqual(1, len(state["relays"]))
        self.assertEqual(["start", "update", "cancel", "start"], [u["operation"] for u in state["mixes"][0]["history"]])
        self.assertIn(b'vexalive_media_state{kind="relay"', self.checked("GET", "/metrics"))
        self.assertEqual(b"\xff\xd8\xff", self.checked("GET", f"/snapshot?mix={STREAM}1")[:3])
        self.checked("GET", "/snapshot?mix=none", 404)
        self.checked("GET", "/")
        form = {"Content-Type": "application/x-www-form-urlencoded"}
        self.checked("POST", "/origin/publish", 200, f"name={STREAM}1", form)
        self.checked("POST", "/origin/publish", 403, "name=alice", form)
        self.request(remove_relay())
        self.request(cancel_mix())

    def test_each_class_of_refusal_is_valid(self):
        missing = add_relay()
        del missing["stream_id"]
        rows = [(4001, add_relay(), "?random=1"), (4003, missing, QUERY), (4004, add_relay(mood="bad"), QUERY),
                (4005, add_relay(stream_id=1), QUERY), (4006, add_relay(stream_id="x"), QUERY),
                (4007, remove_relay(), QUERY), (4009, add_relay(dest_stream_url="srt://cdn.test"), QUERY)]
        for code, content, query in rows:
            self.assertEqual(code, self.request(content, query)["code"])
        path = "/v3/liveinterface/add_relay_stream_url" + QUERY
        self.assertEqual(4002, self.checked("POST", path, content="[]", headers=JSON_TYPE)["code"])
        for method, path in (("GET", "/state"), ("GET", "/metrics"), ("GET", "/faults"), ("GET", "/snapshot"),
                             ("POST", "/faults"), ("DELETE", "/faults"), ("GET", "/")):
            content = "{}" if method == "POST" else None
            self.checked(method, path, 403, content, {"Origin": "https://elsewhere.test", **JSON_TYPE})
        self.checked("POST", "/faults", 400, '{"kind":"sulk"}', JSON_TYPE)

    def test_every_fault_is_valid_and_its_response_is_described(self):
        schemas = self.document["components"]["schemas"]
        listed = self.checked("GET", "/faults")["kinds"]
        self.assertEqual(schemas["FaultKindName"]["enum"], [kind["kind"] for kind in listed])
        properties = schemas["Fault"]["properties"]
        own_fields = {field["name"] for kind in listed for field in kind["fields"]}
        self.assertEqual(set(properties), own_fields | {"kind", "interface", "count", "delay_ms"})
        for kind in listed:
            fault = {"kind": kind["kind"]}
            for field in kind["fields"]:
                described = copy.copy(properties[field["name"]])
                self.assertEqual(described["type"], field["type"])
                if kind["kind"] != "delay" and described.get("format") != "int32":
                    for bound in ("minimum", "maximum", "default"):
                        self.assertEqual(described.get(bound), field.get(bound), (field, bound))
                fault[field["name"]] = field.get("default", field.get("minimum"))
            self.validate(schemas["Fault"], fault)
            self.checked("POST", "/faults", 200, json.dumps(fault), JSON_TYPE)
            self.checked("GET", "/faults")
            self.respond_to_fault(fault)
        self.assertEqual([], self.checked("GET", "/faults")["active"])
        self.checked("DELETE", "/faults")
        self.checked("GET", "/state")

    def respond_to_fault(self, fault):
        kind = fault["kind"]
        path = "/v3/liveinterface/remove_relay_stream_url" + QUERY
        if kind in ("close", "cut"):
            with self.assertRaises((http.client.HTTPException, OSError)):
                self.exchange("POST", path, json.dumps(remove_relay()), JSON_TYPE)
            return
        status, _, response = self.exchange("POST", path, json.dumps(remove_relay()), JSON_TYPE)
        self.assertEqual(fault.get("status", 200), status)
        if kind in ("status", "empty"):
            self.assertEqual(b"", response)
        elif kind == "garbage":
            with self.assertRaises(ValueError):
                json.loads(response)
        else:
            operation = self.document["paths"][path.split("?")[0]]["post"]
            self.validate(operation["responses"]["200"]["content"]["application/json"]["schema"], json.loads(response))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
