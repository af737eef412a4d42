#!/usr/bin/env python3
"""Prints the size of the adapter's library, and of a small program that links everything (examples/relay.cpp).

    size.py BUILD_FOLDER
"""

import os
import subprocess
import sys
import tempfile


def main():
    (build,) = sys.argv[1:]
    sizes = subprocess.run(["size", os.path.join(build, "src/libvexalive_adapter.a")], check=True, capture_output=True,
                           text=True)
    print(f"adapter_text_bytes\t{sum(int(line.split()[0]) for line in sizes.stdout.splitlines()[1:])}")
    with tempfile.NamedTemporaryFile() as stripped:
        subprocess.run(["strip", "-o", stripped.name, os.path.join(build, "examples/example_relay")], check=True)
        print(f"program_bytes\t{os.path.getsize(stripped.name)}")


if __name__ == "__main__":
    main()
