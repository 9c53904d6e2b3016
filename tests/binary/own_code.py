"""Holds the daemon's own functions in a linked binary against what hardens them.

A C library that is linked in is hardened by whoever built it, so symbols somewhere in the binary
show nothing: the calls in the daemon's own functions do. Own is what the given objects define.

  stack protector   each function whose frame has room for an array calls __stack_chk_fail; one that
                    never returns has no return address that could be overwritten
  checked calls     formatted output goes through the checked form (__printf_chk and so on)
  level 3           an area whose size is known at run time alone is checked (__memmove_chk)
"""

import argparse
import re
import subprocess
import sys
from collections.abc import Iterator
from dataclasses import dataclass, field
from pathlib import Path

# Arrays on the daemon's stacks are buffers; a frame without one stays below this, in bytes.
ARRAY_FRAME = 256
HEAD = re.compile(r"^[0-9a-f]+ <([^>]+)>:$")
CALL = re.compile(r"\s(?:callq?|jmpq?|blx?|b|b\.w|b\.n)\s.*<([^>+]+?)(?:@plt)?(?:-0x[0-9a-f]+)?>")
FRAME = re.compile(
    r"\ssub\s+\$0x(?P<x86>[0-9a-f]+),%rsp|\ssub(?:\.w|w)?\s+sp, (?:sp, )?#(?P<arm>\d+)"
)
RETURN = re.compile(r"\sretq?\b|\s(?:pop|ldm)\S*\s.*\bpc\}|\sldr\S*\s+pc, \[sp\]|\sbx\s+lr")
TAIL_CALL = re.compile(r"\s(?:jmpq?|b|b\.w|b\.n)\s")
VENEER = re.compile(r"^__(\w+?)_(?:veneer|from_thumb|from_arm)$")
UNCHECKED = frozenset(
    ["printf", "fprintf", "dprintf", "vprintf", "vfprintf", "vdprintf"]
    + ["sprintf", "snprintf", "vsprintf", "vsnprintf"]
)
# A C library that is linked in goes by other names of its own, too: _IO_printf, ___printf_chk.
ALIAS = re.compile(r"^_*(?:IO_)?(?=[a-z])")


@dataclass
class Function:
    name: str
    frame: int = 0
    calls: set[str] = field(default_factory=set)
    returns: bool = False


def output_of(*command: str) -> list[str]:
    done = subprocess.run(command, check=True, capture_output=True, text=True, errors="replace")
    return done.stdout.splitlines()


def defined_functions(nm: str, objects: list[Path]) -> set[str]:
    rows = (line.split() for line in output_of(nm, "--defined-only", *map(str, objects)))
    return {row[2] for row in rows if len(row) == 3 and row[1] in "Tt"}


def functions(objdump: str, binary: Path) -> Iterator[Function]:
    function: Function | None = None
    for line in output_of(objdump, "-d", "--no-show-raw-insn", str(binary)):
        if head := HEAD.match(line):
            if function is not None:
                yield function
            function = Function(head[1])
        elif function is not None:
            read_instruction(function, line)
    if function is not None:
        yield function


def read_instruction(function: Function, line: str) -> None:
    function.returns = function.returns or RETURN.search(line) is not None
    if call := CALL.search(line):
        function.returns = function.returns or TAIL_CALL.search(line) is not None
        veneer = VENEER.match(call[1])
        function.calls.add(veneer[1] if veneer else call[1])
    elif frame := FRAME.search(line):
        size = int(frame["x86"], 16) if frame["x86"] else int(frame["arm"])
        function.frame += size


def faults_of(own: list[Function]) -> list[str]:
    roomy = [function for function in own if function.frame >= ARRAY_FRAME]
    faults = [
        f"{function.name}: a frame of {function.frame} bytes and no stack protector"
        for function in roomy
        if function.returns and "__stack_chk_fail" not in function.calls
    ]
    faults += [
        f"{function.name}: calls {name}, unchecked"
        for function in own
        for name in sorted(function.calls)
        if ALIAS.sub("", name) in UNCHECKED
    ]
    checked = {name for function in own for name in function.calls if name.endswith("_chk")}
    if not roomy:
        faults.append("no function has an array on its stack: nothing shows the stack protector")
    if "memmove_chk" not in {ALIAS.sub("", name) for name in checked}:
        faults.append("no check of an area whose size is known at run time alone")
    return faults


def main() -> int:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("--objdump", default="objdump", help="of the binary's architecture")
    parser.add_argument("--nm", default="nm", help="of the binary's architecture")
    parser.add_argument("binary", type=Path)
    parser.add_argument("objects", type=Path, nargs="+", help="object files and archives")
    arguments = parser.parse_args()
    names = defined_functions(arguments.nm, arguments.objects)
    own = [one for one in functions(arguments.objdump, arguments.binary) if one.name in names]
    protected = sum("__stack_chk_fail" in function.calls for function in own)
    print(f"{arguments.binary}: {len(own)} own functions, {protected} with a stack protector")
    faults = faults_of(own)
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
