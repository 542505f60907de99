#!/usr/bin/env python3
"""What a device's build takes from this tree agrees with itself and with the sources.

usage: device_test.py SOURCE_DIR [--compile]

The interface file is read by the platform's own compiler, the policy by a policy compiler, and what needs no
binder header by a C++ compiler with the platform's own headers, which Debian has for the rest. --compile has
clang compile everything that Android.bp names, as a device does: for 64-bit Arm, with the language's other
standard library, without run-time type information, with Android.bp's own flags, against platform/include or
the directories of a device's headers in RUX_PLATFORM_HEADERS (separated by colons).
"""

import ast
import concurrent.futures
import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

FOLDERS = ("compress", "control", "db", "dup", "request", "scan", "service")


def modules(text):
    """The modules of a build file: {name: {property: value}}."""
    text = re.sub(r"(\w+): ", r'"\1": ', re.sub(r"//.*", "", text)).replace(" true", " True")
    found = map(ast.literal_eval, re.findall(r"^\w+ (\{.*?^\})", text, re.M | re.S))
    return {module.get("name"): module for module in found}


def check_build(source, build):
    for properties in build.values():
        for path in properties.get("srcs", []) + properties.get("init_rc", []):
            assert (source / path).is_file(), path
            assert not path.startswith("platform/"), path
    sources = {str(path.relative_to(source)) for folder in FOLDERS for path in (source / folder).glob("*.cpp")}
    tests = {path for path in sources if path.endswith("_test.cpp")}
    library = set(build["librux_service"]["srcs"])
    assert library == sources - tests - {"service/main.cpp"} | {"device/database_root.cpp"}, \
        library ^ (sources - tests)
    cmake = re.search(r"add_library\(rux_service STATIC(.*?)\)", (source / "CMakeLists.txt").read_text(), re.S)
    assert set(cmake.group(1).split()) == library - {"device/database_root.cpp"}
    # Those that need nothing but the service: no sandbox, no platform of the test's own.
    portable = {path for path in tests if "tests/support" not in (source / path).read_text()}
    assert set(build["rux_test"]["srcs"]) == portable, portable
    assert "-fexceptions" in build["rux_defaults"]["cppflags"]


def check_interface(source, scratch):
    subprocess.run(["aidl", "--lang=cpp", "--structured", "-I", source / "device/aidl", "-o", scratch, "-h", scratch,
                    source / "device/aidl/tavo/rux/IRux.aidl"], check=True)

    def methods(text):
        """Names and types of the pure virtual functions, in their order; the names of parameters are free."""
        found = re.findall(r"virtual ([\w:]+) (Rux_\w+)\(([^)]*)\) = 0", re.sub(r"\s+", " ", text))
        return [(result.removeprefix("::"), name, re.sub(r"::std::", "std::", re.sub(r" ?\w+(,|$)", r"\1", arguments)))
                for result, name, arguments in found]

    generated = methods((Path(scratch) / "tavo/rux/IRux.h").read_text())
    ours = (source / "service/IRux.h").read_text()
    assert len(generated) == 7 and methods(ours) == generated, (methods(ours), generated)
    codes = [re.match(r"TRANSACTION_(\w+)", line.strip()) for line in ours.splitlines()]
    assert ["Rux_" + code.group(1) for code in codes if code] == [name for _, name, _ in generated]
    stub = (Path(scratch) / "tavo/rux/IRux.cpp").read_text()
    for code, (_, name, _) in enumerate(generated):
        assert f"case ::android::IBinder::FIRST_CALL_TRANSACTION + {code} /* {name} */" in stub, name


def contexts(path):
    lines = [line.split() for line in path.read_text().splitlines() if line.strip() and not line.startswith("#")]
    return {line[0]: (line[1].split(":")[2], line[2:]) for line in lines}


def check_policy(source, scratch):
    policy = source / "device/sepolicy"
    module = subprocess.run(["m4", source / "tests/support/device/policy.m4", policy / "types.te", policy / "rux.te"],
                            capture_output=True, text=True, check=True).stdout
    (Path(scratch) / "rux.conf").write_text(re.sub(r"\n\s*\n", "\n", module))
    subprocess.run(["checkmodule", "-m", "-M", "-o", Path(scratch) / "rux.mod", Path(scratch) / "rux.conf"], check=True)
    types = set(re.findall(r"^type (\w+)", module, re.M))

    files = contexts(policy / "file_contexts")
    properties = contexts(policy / "property_contexts")
    services = contexts(policy / "service_contexts")
    assert {label for table in (files, properties, services) for label, _ in table.values()} <= types

    def label_of(path):
        return [label for pattern, (label, _) in files.items() if re.fullmatch(pattern, path)]

    init = (source / "device/rux.rc").read_text()
    assert label_of(re.search(r"^service rux (\S+)", init, re.M).group(1)) == ["rux_exec"]
    made = re.search(r"mkdir (\S+) 0770 system system", init).group(1)
    root = re.search(r'"(/.*)/"', (source / "device/database_root.cpp").read_text()).group(1)
    assert made == root == "/data/local/zel"
    assert label_of(root) == label_of(root + "/s/RUXFileInfo.json") == ["rux_data_file"]
    # The capabilities of both are the same.
    capabilities = re.search(r"capabilities (.*)", init).group(1).lower().split()
    assert capabilities == re.search(r"self:capability \{ (.*) \}", module).group(1).split()

    declared = set(re.findall(r'"(sys\.ruxservice\.[\w.]+)"', (source / "control/properties.h").read_text()))
    assert len(declared) == 5 and set(properties) == declared, declared
    name = re.search(r'String16\("(\w+)"\)', (source / "service/main.cpp").read_text()).group(1)
    assert list(services) == [name]


def compile_each(command, source, paths):
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        runs = pool.map(lambda path: subprocess.run([*command, "-fsyntax-only", source / path]).returncode, paths)
    failed = [path for path, status in zip(paths, runs) if status != 0]
    assert not failed, failed


def check_headers(source, scratch, build):
    shutil.copy(source / "platform/include/tavo_f2fs_io.h", scratch)
    compile_each(["g++", "-std=c++20", "-Wall", "-Wextra", "-Werror", f"-I{source}", f"-I{scratch}", "-isystem",
                  "/usr/include/jsoncpp", "-isystem", "/usr/include/android"],
                 source, [path for path in build["librux_service"]["srcs"] if not path.startswith("service/")])


def compile_all(source, build):
    defaults = build["rux_defaults"]
    headers = os.environ.get("RUX_PLATFORM_HEADERS", f"{source}/platform/include").split(":")
    command = ["clang++", "--target=aarch64-linux-gnu", "-stdlib=libc++", "-fno-rtti",
               f"-std={defaults['cpp_std']}", *defaults["cflags"], *defaults["cppflags"], f"-I{source}",
               "-isystem", "/usr/include/jsoncpp", "-isystem", f"{source}/tests/support/device",
               *[f"-I{directory}" for directory in headers]]
    sources = sorted({path for properties in build.values() for path in properties.get("srcs", []) if path.endswith(".cpp")})
    compile_each(command, source, sources)
    print(f"{len(sources)} sources compile")


def main():
    source = Path(sys.argv[1])
    build = modules((source / "Android.bp").read_text())
    if "--compile" in sys.argv:
        return compile_all(source, build)
    with tempfile.TemporaryDirectory() as scratch:
        check_build(source, build)
        check_interface(source, scratch)
        check_policy(source, scratch)
        check_headers(source, scratch, build)
    return print("ok")


if __name__ == "__main__":
    main()
