#!/usr/bin/env python3
"""Reads what the files of the libraries show to the outside, and how those that every host loads are
hardened.

usage: inspect_libraries.py [--fortified] NAME=FILE...
"""

import re
import subprocess
import sys

HOST_LIBRARIES = ("tavro_fd_extension", "tavro_core")

EXPORTS = {
    "tavro_fd_extension": set(),
    "tavro_core": {
        "qosl_module_register", "qosl_module_unregister", "qosl_printf", "qosl_so_register",
        "tavro_host_create", "tavro_host_destroy", "tavro_host_error", "tavro_host_load",
        "tavro_host_unload", "tavro::host::createInstance", "tavro::host::destroyInstance",
        "tavro::host::findDetector", "tavro::host::findModule", "tavro::host::loadModule",
        "tavro::host::modules", "tavro::host::setBoundaryObserver", "tavro::host::unloadModule"},
    "tavro_training": {
        "tavroConvertPicture", "tavroCreateDetector", "tavroDetect", "tavroPrepareInput",
        "tavroReleaseDetector", "tavroRunNetwork", "tavroWeights"},
    "gsttavrofacedetect": {
        "gst_plugin_tavrofacedetect_get_desc", "gst_plugin_tavrofacedetect_register"},
    "tavrofd_python": {"PyInit__native"},
}

# The standard library, and what a sanitizer adds to it.
MODULE_NEEDS = re.compile(
    r"lib(tavro-core|stdc\+\+|m|gcc_s|c|asan|ubsan)\.so|ld-linux-x86-64\.so")


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def symbols(path, which):
    """Names; those of C++ functions without their parameters."""
    lines = run("nm", "-DC", "--without-symbol-versions", which, path).splitlines()
    return {re.sub(r"^[0-9a-f ]*\S ", "", line).split("(")[0] for line in lines}


def faults_of_linking(path):
    needed = set(re.findall(r"\(NEEDED\).*\[(.*)\]", run("readelf", "-dW", path)))
    yield from (f"needs {name}" for name in needed if not MODULE_NEEDS.match(name))
    if "libtavro-core.so.1" not in needed:
        yield "doesn't need libtavro-core.so.1"


def faults_of_hardening(path, fortified):
    segments = run("readelf", "-lW", path)
    imports = symbols(path, "--undefined-only")
    if not re.search(r"GNU_STACK .* RW +0x", segments):
        yield "its stack may be executable"
    if re.search(r"LOAD .* (RWE|WE) +0x", segments):
        yield "its code can be written"
    if "GNU_RELRO" not in segments:
        yield "relocations stay writable"
    if not re.search(r"\(BIND_NOW\)|\(FLAGS\).*BIND_NOW", run("readelf", "-dW", path)):
        yield "binds lazily"
    if "__stack_chk_fail" not in imports:
        yield "its stack isn't checked"
    if fortified and not any(re.fullmatch(r"__\w+_chk", name) for name in imports):
        yield "nothing is fortified"


def faults(name, path, fortified):
    exports = symbols(path, "--defined-only")
    if exports != EXPORTS[name]:
        yield f"exports differ: {sorted(exports ^ EXPORTS[name])}"
    if name == "tavro_fd_extension":
        yield from faults_of_linking(path)
    if name in HOST_LIBRARIES:
        yield from faults_of_hardening(path, fortified)


def main(arguments):
    fortified = "--fortified" in arguments
    libraries = dict(argument.split("=", 1) for argument in arguments if "=" in argument)
    if not set(HOST_LIBRARIES) <= libraries.keys():
        print(__doc__)
        return 2
    found = [f"{path}: {fault}" for name, path in libraries.items()
             for fault in faults(name, path, fortified)]
    print("\n".join(found + [f"{len(libraries)} libraries read"]))
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
