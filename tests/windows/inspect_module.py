#!/usr/bin/env python3
"""Reads the module's DLL and checks what it asks of the system, what it shows, and how it uses the stack.

  imports  the four functions of libtavro-core.dll by their plain names; beyond them only KERNEL32
           and the C runtime
  exports  none
  stack    no 256-bit move demands an address that is a multiple of 32, since the system aligns the
           stack to 16 bytes and the compiler doesn't align it further

usage: inspect_module.py OBJDUMP MODULE
"""

import re
import subprocess
import sys

HOST = "libtavro-core.dll"
HOST_FUNCTIONS = {"qosl_so_register", "qosl_module_register", "qosl_module_unregister", "qosl_printf"}
SYSTEM = {"kernel32.dll", "msvcrt.dll"}
# Of the moves that demand an aligned address, those that the compiler makes on its own. A buffer in
# memory isn't moved with them either: who could tell its address from one on the stack?
ALIGNED_MOVE = re.compile(r"\tvmov(aps|apd|dqa)\s.*%ymm.*\(|\tvmov(aps|apd|dqa)\s.*\(.*%ymm")
VECTOR_ON_STACK = re.compile(r"\tvmov\w+\s.*%ymm\d+,.*\(%r(sp|bp)|\tvmov\w+\s.*\(%r(sp|bp).*%ymm")


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def imports(headers):
    """The names imported from each DLL."""
    found = {}
    current = None
    for line in headers.splitlines():
        if "DLL Name:" in line:
            current = found.setdefault(line.split("DLL Name:")[1].strip(), set())
        elif current is not None:
            entry = re.match(r"^\s+[0-9a-f]+\s+\d+\s+(\S+)\s*$", line)
            if entry:
                current.add(entry.group(1))
            elif not line.strip():
                current = None
    return found


def export_count(headers):
    counts = re.search(r"Export Address Table\s+([0-9a-f]{8})\s*$", headers, re.MULTILINE)
    return int(counts.group(1), 16) if counts else 0


def main(objdump, module):
    headers = run(objdump, "-p", module)
    found = imports(headers)
    faults = []
    if found.get(HOST) != HOST_FUNCTIONS:
        faults.append(f"imports {sorted(found.get(HOST, []))} from {HOST}")
    faults += [f"needs {name}" for name in found if name != HOST and name.lower() not in SYSTEM]
    if export_count(headers) != 0:
        faults.append(f"exports {export_count(headers)} symbols")

    code = run(objdump, "-d", "--no-show-raw-insn", module).splitlines()
    on_stack = sum(1 for line in code if VECTOR_ON_STACK.search(line))
    faults += ["moves 256 bits to an aligned address: " + line.strip()
               for line in code if ALIGNED_MOVE.search(line)]
    if on_stack == 0:
        faults.append("moves no 256 bits to the stack at all: the disassembly isn't what it should be")

    for name, functions in sorted(found.items()):
        print(f"{name}: {len(functions)} functions")
    print(f"{on_stack} moves of 256 bits to and from the stack")
    for fault in faults:
        print("FAULT:", fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]) if len(sys.argv) == 3 else (print(__doc__), 2)[1])
