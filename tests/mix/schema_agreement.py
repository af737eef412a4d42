"""Checks that the published schema accepts exactly the files that the reader accepts.

Usage: schema_agreement.py PROBE SCHEMA EXAMPLES
"""

import copy
import json
import pathlib
import random
import subprocess
import sys
import tempfile

try:
    from jsonschema import Draft202012Validator
except ImportError as missing:
    print("skipped: the Python module jsonschema is not installed (Debian: python3-jsonschema):", missing)
    sys.exit(77)

probe, schema_file, examples = sys.argv[1:]
schema = json.loads(pathlib.Path(schema_file).read_text())
Draft202012Validator.check_schema(schema)
validator = Draft202012Validator(schema)

USER = {"userId": "a", "rect": {"x": 0, "y": 0, "w": 1, "h": 1}}
WHOLE = {
    "mode": 1, "appId": 1, "bizId": 2, "videoWidth": 3, "videoHeight": 4, "videoBitrate": 5, "videoFramerate": 6,
    "videoGOP": 7, "audioSampleRate": 8, "audioBitrate": 9, "audioChannels": 2,
    "mixUsersArray": [
        {"userId": "a", "roomId": "r", "rect": {"x": 1, "y": 2, "w": 3, "h": 4}, "zOrder": 1, "pureAudio": False,
         "streamType": 2},
        {"userId": "b", "pureAudio": True},
    ],
}


def minimal(**more):
    return {"appId": 1, "bizId": 2, "mixUsersArray": [], **more}


def with_user(**more):
    return minimal(mixUsersArray=[{**USER, **more}])


GOOD = [
    WHOLE,
    minimal(),
    with_user(),
    minimal(appId=0, bizId=0, videoWidth=0),  # the reader accepts these values; only the adapter refuses them
    minimal(mode=-2147483648, videoGOP=2147483647),
    minimal(videoWidth=1280.0),
    with_user(userId=""),
    with_user(zOrder=99, streamType=-5),
    minimal(mixUsersArray=[{"userId": "a", "pureAudio": True}]),
    minimal(mixUsersArray=[{**USER, "pureAudio": True}, USER]),
]
BAD = [
    [], None, 1, "text", True, {},
    {"bizId": 2, "mixUsersArray": []},
    {"appId": 1, "mixUsersArray": []},
    {"appId": 1, "bizId": 2},
    minimal(appid=1),
    minimal(videoWidth=2147483648),
    minimal(videoWidth=-2147483649),
    minimal(videoWidth=1e300),
    minimal(videoWidth=0.5),
    minimal(videoWidth="1280"),
    minimal(videoWidth=None),
    minimal(videoWidth=True),
    minimal(videoWidth=[]),
    minimal(mixUsersArray={}),
    minimal(mixUsersArray=[[]]),
    minimal(mixUsersArray=[{}]),
    minimal(mixUsersArray=[None]),
    minimal(mixUsersArray=[{"userId": "a"}]),
    minimal(mixUsersArray=[{"userId": "a", "pureAudio": False}]),
    minimal(mixUsersArray=[{"rect": USER["rect"]}]),
    with_user(userId=1),
    with_user(roomId=None),
    with_user(rect=[0, 0, 1, 1]),
    with_user(rect={"x": 0, "y": 0, "w": 1}),
    with_user(rect={"x": 0, "y": 0, "w": 1, "h": 1, "z": 1}),
    with_user(rect={"x": 0, "y": 0, "w": 1, "h": "1"}),
    with_user(pureAudio=1),
    with_user(pureAudio="true"),
    with_user(name="a"),
]

VALUES = 4 * [0, -1, 1, 2.0, 2147483647] + [2147483648, -2147483648, -2147483649, 1.5, 1e10, "", "1", None, True,
                                            False, [], {}, [USER], USER, USER["rect"]]
NAMES = ["userId", "rect", "pureAudio", "x", "w", "appId", "mixUsersArray", "zOrder", "other"]


def containers(value):
    if isinstance(value, (dict, list)):
        yield value
        for part in value.values() if isinstance(value, dict) else value:
            yield from containers(part)


def changed(value, generator):
    value = copy.deepcopy(value)
    for _ in range(generator.randint(1, 2)):
        container = generator.choice(list(containers(value)))
        if isinstance(container, list):
            container.append(copy.deepcopy(generator.choice(VALUES)))
        elif container and generator.random() < 0.4:
            del container[generator.choice(sorted(container))]
        else:
            names = sorted(container) if container and generator.random() < 0.7 else NAMES
            container[generator.choice(names)] = copy.deepcopy(generator.choice(VALUES))
    return value


generator = random.Random(20)
cases = [(value, True) for value in GOOD] + [(value, False) for value in BAD]
cases += [(json.loads(path.read_text()), True) for path in sorted(pathlib.Path(examples).glob("*.json"))]
cases += [(changed(generator.choice(GOOD), generator), None) for _ in range(1000)]

with tempfile.TemporaryDirectory() as folder:
    paths = []
    for number, (value, _) in enumerate(cases):
        paths.append(pathlib.Path(folder) / f"{number}.json")
        paths[-1].write_text(json.dumps(value))
    results = subprocess.run([probe, *paths], check=True, capture_output=True, text=True).stdout.split()

failures = 0
assert len(results) == len(cases)
for (value, expected), result in zip(cases, results):
    by_schema = validator.is_valid(value)
    if by_schema != (result == "good") or (expected is not None and by_schema != expected):
        failures += 1
        print("disagreed: reader", result, ", schema", "good" if by_schema else "bad", ":", json.dumps(value))
good = results.count("good")
print(f"{len(cases)} files, {good} good and {len(cases) - good} bad; {failures} disagreements")
assert good > 100 and len(cases) - good > 100
sys.exit(1 if failures else 0)
