#!/usr/bin/python3 -IB
"""Run by script/release-check in a root whose systemd runs: uses the service as it is confined."""
import os
import pty
import select
import socket
import subprocess
import sys
import time
import tty
from collections.abc import Callable
from pathlib import Path

UNIT = "vexa-at-client.service"
AT_PORT = Path("/dev/at_usb1")
PLATFORM_SOCKET = Path("/dev/socket/qmux_webs/server_webs")
SCENARIO = "/usr/share/vexa-at-bench/scenarios/platform-default.txt"
DROP_IN = Path("/run/systemd/system") / f"{UNIT}.d" / "standins.conf"
DUN_FLAG = Path("/etc/data/usb/softap_w_dun")
UDP_PORT = 5555
OUTER = "192.0.2.1"  # of the addresses for documentation: nobody's
DEADLINE_S = 60.0


class NotSo(Exception):
    """What the service did not do."""


def so(text: str) -> None:
    print(f"  {text}", file=sys.stderr)


def run(*command: str) -> str:
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    if done.returncode:
        raise NotSo(f"{' '.join(command)}: {done.stdout}{done.stderr}")
    return done.stdout


def shown(field: str) -> str:
    return run("systemctl", "show", UNIT, "--property", field, "--value").strip()


def wait_for(what: str, holds: Callable[[], bool]) -> None:
    end = time.monotonic() + DEADLINE_S
    while not holds():
        if time.monotonic() > end:
            log = run("journalctl", "--lines=40", "--output=cat", f"--unit={UNIT}")
            raise NotSo(f"in vain: {what}\n{log}")
        time.sleep(0.05)


def udp_line() -> list[str]:
    """The kernel's line of the daemon's socket, by fields; empty without one."""
    lines = Path("/proc/net/udp").read_text(encoding="ascii").splitlines()
    return next((line.split() for line in lines if f":{UDP_PORT:04X} " in line), [])


def read_until(descriptor: int, wanted: bytes) -> bytes:
    end = time.monotonic() + DEADLINE_S
    seen = b""
    while wanted not in seen:
        left = end - time.monotonic()
        if left <= 0 or not select.select([descriptor], [], [], left)[0]:
            raise NotSo(f"no {wanted!r} came, only {seen!r}")
        seen += os.read(descriptor, 4096)
    return seen


def lay_module() -> int:
    """A pty as the AT port and an app platform; the pty's far end."""
    far, near = pty.openpty()
    tty.setraw(near)
    AT_PORT.symlink_to(os.ttyname(near))
    PLATFORM_SOCKET.parent.mkdir(parents=True)
    subprocess.Popen(["vexa-platform", SCENARIO], stdout=subprocess.DEVNULL)
    DROP_IN.parent.mkdir(parents=True)
    DROP_IN.write_text(
        "[Service]\nEnvironment=LD_LIBRARY_PATH=/usr/lib/vexa-at-client/standins\n",
        encoding="ascii",
    )
    run("systemctl", "daemon-reload")
    wait_for("the app platform listens", PLATFORM_SOCKET.exists)
    return far


def check_ports(far: int) -> None:
    run("systemctl", "start", UNIT)
    wait_for("UDP port 5555 is open", lambda: bool(udp_line()))
    process = Path("/proc") / shown("MainPID")
    wait_for("the AT port is open", lambda: any(
        os.path.realpath(link) == os.path.realpath(AT_PORT) for link in (process / "fd").iterdir()))
    os.write(far, b"AT+CGMR\r")
    read_until(far, b"\r\nOK\r\n")
    so("the confined daemon answers AT+CGMR on the AT port, from the app platform")
    status = (process / "status").read_text(encoding="ascii")
    for wanted in ("CapBnd:\t0000000000000000", "NoNewPrivs:\t1", "Seccomp:\t2"):
        if wanted not in status:
            raise NotSo(f"the daemon's status has not {wanted!r}")
    so("without capabilities, without new privileges, under a system call filter")


def check_network() -> None:
    # The service's own filter is looked at, so the packet filter goes.
    run("nft", "delete", "table", "inet", "vexa_at_client")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as near_by:
        near_by.sendto(b"AT+CGMR\r\n", ("127.0.0.1", UDP_PORT))
        read_until(near_by.fileno(), b"OK")
    so("a client on the loopback is answered")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as outsider:
        outsider.bind((OUTER, 0))
        outsider.sendto(b"AT+CGMR\r\n", (OUTER, UDP_PORT))
        wait_for("a datagram of another address is dropped", lambda: udp_line()[-1] != "0")
    so("a datagram of another address is dropped by the service's own filter")


def check_ends() -> None:
    before = int(shown("NRestarts"))
    run("systemctl", "kill", "--signal=SEGV", UNIT)
    wait_for("a crash is followed by a restart", lambda: int(shown("NRestarts")) > before)
    wait_for("UDP port 5555 is open again", lambda: bool(udp_line()))
    so("a crash is followed by a restart")
    DUN_FLAG.parent.mkdir(parents=True)
    DUN_FLAG.write_text("Y", encoding="ascii")
    run("systemctl", "restart", UNIT)
    wait_for("DUN+SoftAP mode ends it", lambda: shown("ActiveState") == "inactive")
    if shown("Result") != "success":
        raise NotSo(f"in DUN+SoftAP mode its result is {shown('Result')}")
    so("it reads its flag files: DUN+SoftAP mode ends it for good")


def tidy() -> None:
    run("systemctl", "stop", UNIT)
    DUN_FLAG.unlink()
    DUN_FLAG.parent.rmdir()
    DUN_FLAG.parent.parent.rmdir()


def main() -> int:
    try:
        far = lay_module()
        check_ports(far)
        check_network()
        check_ends()
        tidy()
    except NotSo as reason:
        print(f"  not so: {reason}", file=sys.stderr)
        return 1
    return 0


sys.exit(main())
