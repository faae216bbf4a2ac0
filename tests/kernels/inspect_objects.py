#!/usr/bin/env python3
"""Reads the disassembly of compiled object files and checks what the sources can't say themselves.

Each object belongs to an instruction set, named by the file it was compiled from:

  baseline   no VEX-coded instruction: it must run on any x86-64 processor
  ssse3      likewise; it may use SSSE3
  f16c, avx  may use 256-bit registers, but nothing newer than AVX, FMA and F16C

In all but the baseline no symbol may be weak, or the linker could put a copy compiled for a newer
processor where baseline code calls it. A function that touched 256-bit registers must not return or
call away without vzeroupper. In the hot loops of avx objects (innermost loops that multiply) no vector
may travel over the stack.

usage: inspect_objects.py OBJECT...
"""

import re
import subprocess
import sys
from collections import namedtuple

Instruction = namedtuple("Instruction", "address mnemonic operands")

KINDS = (
    (re.compile(r"avx_\w+_kernels|_64_asm"), "avx"),
    (re.compile(r"f16c"), "f16c"),
    (re.compile(r"ssse3"), "ssse3"),
)
MULTIPLY = re.compile(r"v?mulps|vfn?m(add|sub)")
STACK_VECTOR = re.compile(r"[xyz]mm.*\(%rsp|\(%rsp.*[xyz]mm")
JUMP = re.compile(r"^j\w+$|^loop")
# Of AVX2: integers in 256 bits, and the few new names and forms.
NEWER = re.compile(r"%zmm|%k[0-7]|vpbroadcast|v(insert|extract)i128|vperm2i128|vperm[dq]\b|vpermp[sd]"
                   r"|vp?gather|vpmaskmov|vps[lr][la]v|vpblendd|^v?bmi|\b(sarx|shlx|shrx|rorx|mulx)\b")


def kind_of(path):
    for pattern, kind in KINDS:
        if pattern.search(path):
            return kind
    return "baseline"


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


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


def jump_target(instruction):
    if not JUMP.match(instruction.mnemonic):
        return None
    target = re.match(r"^([0-9a-f]+)", instruction.operands)
    return int(target.group(1), 16) if target else None


def innermost_loops(body):
    loops = []
    for at, instruction in enumerate(body):
        target = jump_target(instruction)
        if target is not None and body[0].address <= target <= instruction.address:
            first = next(i for i, other in enumerate(body) if other.address >= target)
            loops.append((first, at))
    return [(first, last) for first, last in loops
            if not any((a, b) != (first, last) and first <= a and b <= last for a, b in loops)]


def spills(body):
    for first, last in innermost_loops(body):
        loop = body[first:last + 1]
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


def dirty_exits(body):
    """Returns and calls that can be reached with the upper halves of vector registers in use."""
    position = {instruction.address: at for at, instruction in enumerate(body)}
    pending, seen = [(0, False)], set()
    while pending:
        at, dirty = pending.pop()
        if (at, dirty) in seen or at >= len(body):
            continue
        seen.add((at, dirty))
        instruction = body[at]
        mnemonic = instruction.mnemonic
        if "%ymm" in instruction.operands:
            dirty = True
        elif mnemonic in ("vzeroupper", "vzeroall"):
            dirty = False
        target = jump_target(instruction)
        # An indirect jump goes through a table of the function's own.
        leaves = mnemonic.startswith("jmp") and target is not None and target not in position
        if dirty and (mnemonic.startswith(("ret", "call")) or leaves):
            yield instruction
        if target in position:
            pending.append((position[target], dirty))
        if not mnemonic.startswith(("ret", "jmp", "ud2")):
            pending.append((at + 1, dirty))


def weak_symbols(path):
    for line in run("nm", "-C", path).splitlines():
        if re.search(r" [WVu] ", line) and "DW.ref.__gxx_personality" not in line:
            yield line.strip()


def inspect(path):
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
            elif is_newer(instruction):
                note("needs more than AVX and FMA", instruction)
        for instruction in spills(body) if kind == "avx" else ():
            note("a vector on the stack in a hot loop", instruction)
        for instruction in dirty_exits(body):
            note("leaves without vzeroupper", instruction)
    return faults


def main(paths):
    if not paths:
        print(__doc__)
        return 2
    count = {}
    failed = False
    for path in paths:
        kind = kind_of(path)
        count[kind] = count.get(kind, 0) + 1
        for fault in inspect(path):
            failed = True
            print(f"{path}: {fault}")
    missing = {"avx", "ssse3", "f16c", "baseline"} - count.keys()
    if missing:
        print("no object of kind", ", ".join(sorted(missing)))
    print(", ".join(f"{number} {kind}" for kind, number in sorted(count.items())), "objects read")
    return 1 if failed or missing else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
