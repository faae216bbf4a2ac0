#!/usr/bin/env python3
"""Reads what the compiler and the linker made of the sources, and checks what these can't say.

objects: the disassembly of compiled files. Each belongs to an instruction set, named by its source:

  baseline   no VEX-coded instruction: it must run on any x86-64 processor
  ssse3      likewise; it may use SSSE3
  f16c, avx  may use 256-bit registers, but nothing newer than AVX, FMA and F16C
  avx2       may use AVX2, but nothing newer
  avx512     may use more, up to the sets of AVX-512 that a twin asks for

In all but the baseline no symbol may be weak, or the linker could put a copy compiled for a newer
processor where baseline code calls it. In the hot loops of the kinds avx and avx512 (innermost loops
that multiply) no vector may travel over the stack.

libraries: what they export, what the module needs, and how those that every host loads are hardened.

dll: what the module's DLL asks of the system and shows, and that no move of 256 or 512 bits demands an
address that is a multiple of its size, since the system aligns the stack to 16 bytes and the compiler
doesn't align it further.

usage: inspect_binaries.py objects OBJECT...
       inspect_binaries.py libraries [--fortified] NAME=FILE...
       inspect_binaries.py dll OBJDUMP MODULE
"""

import re
import subprocess
import sys
from collections import Counter, namedtuple


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


# --- Objects ---

Instruction = namedtuple("Instruction", "address mnemonic operands")

KINDS = (
    (re.compile(r"avx_\w+_(kernels|twins)|_64_asm"), "avx"),
    (re.compile(r"avx512_twins"), "avx512"),
    (re.compile(r"avx2"), "avx2"),
    (re.compile(r"f16c"), "f16c"),
    (re.compile(r"ssse3"), "ssse3"),
)
MULTIPLY = re.compile(r"v?mulps|vfn?m(add|sub)")
STACK_VECTOR = re.compile(r"[xyz]mm.*\(%rsp|\(%rsp.*[xyz]mm")
JUMP = re.compile(r"^j\w+$|^loop")
# Masks, 512 bits and the upper sixteen registers.
AVX512 = re.compile(r"%zmm|%k[0-7]|%[xy]mm(1[6-9]|2\d|3[01])")
# Of AVX2: integers in 256 bits, and the few new names and forms.
NEWER = re.compile(r"%zmm|%k[0-7]|vpbroadcast|v(insert|extract)i128|vperm2i128|vperm[dq]\b|vpermp[sd]"
                   r"|vp?gather|vpmaskmov|vps[lr][la]v|vpblendd|^v?bmi|\b(sarx|shlx|shrx|rorx|mulx)\b")


def kind_of(path):
    for pattern, kind in KINDS:
        if pattern.search(path):
            return kind
    return "baseline"


def functions(path):
    """Yields the name and the instructions of each function."""
    name, body = None, []
    for line in run("objdump", "-d", "--no-show-raw-insn", "-C", path).splitlines():
        header = re.match(r"^[0-9a-f]+ <(.*)>:$", line)
        if header:
            if body:
                yield name, body
            name, body = header.group(1), []
            continue
        code = re.match(r"^\s+([0-9a-f]+):\t(\S+)\s*(.*)$", line)
        if code:
            operands = code.group(3).split("#")[0].strip()
            body.append(Instruction(int(code.group(1), 16), code.group(2), operands))
    if body:
        yield name, body


def innermost_loops(body):
    """The instructions of each loop that has none inside of it; a loop is a jump backwards."""
    places = {instruction.address: at for at, instruction in enumerate(body)}
    loops = []
    for last, instruction in enumerate(body):
        target = re.match(r"[0-9a-f]+", instruction.operands)
        if JUMP.match(instruction.mnemonic) and target:
            first = places.get(int(target[0], 16), len(body))
            loops += [(first, last)] if first <= last else []
    return [body[first:last + 1] for first, last in loops
            if not any((a, b) != (first, last) and first <= a and b <= last for a, b in loops)]


def spills(body):
    for loop in innermost_loops(body):
        if any(MULTIPLY.match(i.mnemonic) for i in loop):
            yield from (i for i in loop if STACK_VECTOR.search(i.operands))


def is_newer(instruction):
    text = instruction.mnemonic + " " + instruction.operands
    if NEWER.search(text):
        return True
    if re.match(r"vp(?!erm(ilp|2f)|test)", instruction.mnemonic) and "%ymm" in text:
        return True
    # From memory it is AVX; from a register only AVX2 can.
    return instruction.mnemonic == "vbroadcastss" and re.match(r"%xmm", instruction.operands)


def weak_symbols(path):
    for line in run("nm", "-C", path).splitlines():
        if re.search(r" [WVu] ", line) and "DW.ref.__gxx_personality" not in line:
            yield line.strip()


def object_faults(path):
    kind = kind_of(path)
    faults = []
    if kind != "baseline":
        faults += [f"weak symbol: {symbol}" for symbol in weak_symbols(path)]
    for name, body in functions(path):
        def note(what, instruction):
            faults.append(f"{name}: {what}: {instruction.address:x}: "
                          f"{instruction.mnemonic} {instruction.operands}")
        for instruction in body:
            if kind in ("baseline", "ssse3"):
                if re.match(r"v(?!er[rw]$)", instruction.mnemonic):
                    note("needs AVX", instruction)
            elif kind == "avx2":
                if AVX512.search(instruction.operands):
                    note("needs more than AVX2", instruction)
            elif kind != "avx512" and is_newer(instruction):
                note("needs more than AVX and FMA", instruction)
        for instruction in spills(body) if kind in ("avx", "avx512") else ():
            note("a vector on the stack in a hot loop", instruction)
    return faults


def inspect_objects(paths):
    count = Counter(kind_of(path) for path in paths)
    for path in paths:
        yield from (f"{path}: {fault}" for fault in object_faults(path))
    yield from (f"no object of kind {kind}" for kind in ("avx", "avx2", "ssse3", "f16c", "baseline")
                if not count[kind])
    print(", ".join(f"{number} {kind}" for kind, number in sorted(count.items())), "objects read")


# --- Libraries ---

MODULES = ("tavro_fd_extension", "tavro_fd_extension_square")
HOST_LIBRARIES = (*MODULES, "tavro_core")

EXPORTS = {
    **dict.fromkeys(MODULES, set()),
    "tavro_core": {
        "qosl_module_register", "qosl_module_unregister", "qosl_printf", "qosl_so_register",
        "tavro_host_create", "tavro_host_destroy", "tavro_host_error", "tavro_host_load",
        "tavro_host_unload", "tavro::host::createInstance", "tavro::host::destroyInstance",
        "tavro::host::findDetector", "tavro::host::findModule", "tavro::host::loadModule",
        "tavro::host::modules", "tavro::host::setBoundaryObserver", "tavro::host::unloadModule",
        "tavro::host::squareDetectorBeside", "tavro::host::FaceNumbers::forget",
        "tavro::host::FaceNumbers::update",
        *(f"tavro::host::FrameSearch::{function}"
          for function in ("check", "open", "restart", "search", "smallestFace", "windows",
                           "~FrameSearch"))},
    "tavro_training": {
        "tavroConvertPicture", "tavroCreateDetector", "tavroDetect", "tavroGroupBoxes",
        "tavroPlanWindows", "tavroPrepareInput", "tavroReleaseDetector", "tavroRunNetwork",
        "tavroWeights"},
    "gsttavrofacedetect": {
        "gst_plugin_tavrofacedetect_get_desc", "gst_plugin_tavrofacedetect_register"},
    "tavrofd_python": {"PyInit__native"},
}

# The standard library, and what a sanitizer adds to it.
MODULE_NEEDS = re.compile(
    r"lib(tavro-core|stdc\+\+|m|gcc_s|c|asan|ubsan)\.so|ld-linux-x86-64\.so")


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
    segments, dynamic = run("readelf", "-lW", path), run("readelf", "-dW", path)
    imports = symbols(path, "--undefined-only")
    for fault, holds in (
            ("its stack may be executable", not re.search(r"GNU_STACK .* RW +0x", segments)),
            ("its code can be written", re.search(r"LOAD .* (RWE|WE) +0x", segments)),
            ("relocations stay writable", "GNU_RELRO" not in segments),
            ("binds lazily", not re.search(r"\(BIND_NOW\)|\(FLAGS\).*BIND_NOW", dynamic)),
            ("its stack isn't checked", "__stack_chk_fail" not in imports),
            ("nothing is fortified", fortified and not any(
                re.fullmatch(r"__\w+_chk", name) for name in imports))):
        if holds:
            yield fault


def library_faults(name, path, fortified):
    exports = symbols(path, "--defined-only")
    if exports != EXPORTS[name]:
        yield f"exports differ: {sorted(exports ^ EXPORTS[name])}"
    if name in MODULES:
        yield from faults_of_linking(path)
    if name in HOST_LIBRARIES:
        yield from faults_of_hardening(path, fortified)


def inspect_libraries(arguments):
    fortified = "--fortified" in arguments
    libraries = dict(argument.split("=", 1) for argument in arguments if "=" in argument)
    yield from (f"{name} isn't there" for name in HOST_LIBRARIES if name not in libraries)
    for name, path in libraries.items():
        yield from (f"{path}: {fault}" for fault in library_faults(name, path, fortified))
    print(f"{len(libraries)} libraries read")


# --- The DLL ---

CORE = "libtavro-core.dll"
CORE_FUNCTIONS = {"qosl_so_register", "qosl_module_register", "qosl_module_unregister", "qosl_printf"}
SYSTEM_LIBRARIES = {"kernel32.dll", "msvcrt.dll"}
# Of the moves that demand an aligned address, those that the compiler makes on its own. A buffer in
# memory isn't moved with them either: nothing tells its address from one on the stack.
ALIGNED_MOVE = re.compile(r"\tvmov(?:aps|apd|dqa|dqa32|dqa64)\s(?:.*%[yz]mm.*\(|.*\(.*%[yz]mm)")
VECTOR_ON_STACK = re.compile(r"\tvmov\w+\s(?:.*%[yz]mm\d+,.*\(%r[sb]p|.*\(%r[sb]p.*%[yz]mm)")


def inspect_dll(arguments):
    objdump, module = arguments
    headers = run(objdump, "-p", module)
    found = {}
    for part in headers.split("DLL Name: ")[1:]:
        name, entries = part.split("\n\n")[0].split("\n", 1)
        found[name.strip()] = set(re.findall(r"^\s+[0-9a-f]+\s+\d+\s+(\S+)\s*$", entries, re.MULTILINE))
    if found.get(CORE) != CORE_FUNCTIONS:
        yield f"imports {sorted(found.get(CORE, []))} from {CORE}"
    yield from (f"needs {name}" for name in found
                if name != CORE and name.lower() not in SYSTEM_LIBRARIES)
    exports = re.search(r"Export Address Table\s+([0-9a-f]{8})\s*$", headers, re.MULTILINE)
    if exports and int(exports[1], 16):
        yield f"exports {int(exports[1], 16)} symbols"
    code = run(objdump, "-d", "--no-show-raw-insn", module).splitlines()
    on_stack = sum(1 for line in code if VECTOR_ON_STACK.search(line))
    yield from ("moves a wide vector to an aligned address: " + line.strip()
                for line in code if ALIGNED_MOVE.search(line))
    if on_stack == 0:
        yield "moves no wide vector to the stack at all: the disassembly isn't what it should be"
    print(f"{on_stack} moves of wide vectors to and from the stack")


INSPECTIONS = {"objects": inspect_objects, "libraries": inspect_libraries, "dll": inspect_dll}


def main(arguments):
    if len(arguments) < 2 or arguments[0] not in INSPECTIONS:
        print(__doc__)
        return 2
    faults = list(INSPECTIONS[arguments[0]](arguments[1:]))
    for fault in faults:
        print("FAULT:", fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
