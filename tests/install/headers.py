"""Checks that the adapter's sources and the public headers each compile alone, without exceptions and RTTI.

They may include only headers of the project, the compiler and the C library.

Usage: headers.py SRC COMPILER. The package database names the package of a header; without one the check is skipped
(exit status 77).
"""

import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

SOURCES = ["Com/*.cpp", "params/*.cpp", "base/*.cpp"]
HEADERS = ["Com/*.h", "params/*.h", "base/*.h", "platform/Platform.h"]
STANDARD = re.compile(r"(libstdc\+\+-\d+-dev|libgcc-\d+-dev|libclang-common-\d+-dev|libc6-dev|linux-libc-dev)(:\w+)?")


def headers_read(source, src, compiler):
    """Compiles the source. Returns the real paths of all files that the compiler has read."""
    with tempfile.TemporaryDirectory() as scratch:
        dependencies = pathlib.Path(scratch, "dependencies")
        subprocess.run(
            [compiler, "-std=c++17", "-fno-exceptions", "-fno-rtti", "-Wall", "-Wextra", "-Werror", "-I", src,
             "-fsyntax-only", "-MD", "-MF", dependencies, "-MT", "target", "-x", "c++", source],
            check=True)
        text = dependencies.read_text().replace("\\\n", " ")
    return {pathlib.Path(name).resolve() for name in text.partition(":")[2].split()}


def package_of(path):
    found = subprocess.run(["dpkg-query", "-S", path], capture_output=True, text=True)
    return found.stdout.partition(": ")[0] if found.returncode == 0 else "no package"


def main(src, compiler):
    if not shutil.which("dpkg-query"):
        print("no package database")
        return 77
    src = pathlib.Path(src).resolve()
    units = {pattern: sorted(src.glob(pattern)) for pattern in SOURCES + HEADERS}
    assert all(units.values()), f"nothing matches one of {list(units)}"

    read_by = {}
    with tempfile.TemporaryDirectory() as scratch:
        for unit in sum(units.values(), []):
            source = unit
            if unit.suffix == ".h":  # compiled as the first include of a source
                source = pathlib.Path(scratch, "unit.cpp")
                source.write_text(f'#include "{unit.relative_to(src)}"\n')
            for header in headers_read(source, src, compiler) - {source.resolve()}:
                read_by.setdefault(header, unit)

    foreign = 0
    outside = {header: unit for header, unit in read_by.items() if src not in header.parents}
    for header, unit in sorted(outside.items()):
        package = package_of(header)
        if not STANDARD.fullmatch(package):
            print(f"{unit.relative_to(src)} reads {header} ({package})")
            foreign += 1
    compiled = len(sum(units.values(), []))
    print(f"{compiled} files compiled, {len(outside)} headers outside the project, {foreign} foreign")
    return 1 if foreign or not outside else 0


sys.exit(main(*sys.argv[1:]))
