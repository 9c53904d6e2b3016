"""Packs of the platform link (include/vexa_common_def.h), and which port a link serves."""

from __future__ import annotations

import struct
from collections.abc import Iterable
from dataclasses import dataclass

from .recording import Event

HEADS = struct.Struct("<II" + "IiI" + "iiiIIBBxx")
MAGIC = 0x7061636B  # "kcap"
KINDS = {0: "indication", 1: "command", 2: "data", 3: "online command", 4: "port report"}
PORT_REPORT = 4
PORT_NAMES = {0: "modem", 1: "at", 4: "uart"}


@dataclass(frozen=True)
class Pack:
    """One pack, or bytes that are none: then `fault` says why and `payload` holds them all."""

    kind: str  # of KINDS, "" when there is a fault
    payload: bytes
    size: int  # of the whole pack in bytes, heads included
    fault: str = ""

    @property
    def reported_port(self) -> str:
        """The port that a port report names, such as "at"; "" when this is no report."""
        if self.kind != KINDS[PORT_REPORT] or len(self.payload) < 4:
            return ""
        number = int(struct.unpack_from("<i", self.payload)[0])
        return PORT_NAMES.get(number, f"port {number}")


def _first_pack(data: bytes) -> Pack:
    if len(data) < HEADS.size:
        return Pack("", data, len(data), f"{len(data)} bytes, less than the heads of a pack")
    magic, size, _, _, _, kind, _, _, _, _, _, _ = HEADS.unpack_from(data)
    if magic != MAGIC:
        return Pack("", data, len(data), "no pack begins here")
    if size < HEADS.size:
        return Pack("", data, len(data), f"a pack that says it has {size} bytes")
    if size > len(data):
        return Pack("", data, len(data), f"{len(data)} bytes of a pack that says it has {size}")
    return Pack(KINDS.get(kind, f"kind {kind}"), data[HEADS.size : size], size)


def split_packs(data: bytes) -> list[Pack]:
    """The packs of one read or write; what cannot be read as a pack ends the list."""
    packs: list[Pack] = []
    while data:
        pack = _first_pack(data)
        packs.append(pack)
        data = data[pack.size :]
    return packs


def connection_ports(events: Iterable[Event]) -> dict[int, str]:
    """Which host port each platform connection serves, by the first port report on it."""
    ports: dict[int, str] = {}
    for event in events:
        connection = event.number("conn")
        if event.at != "platform" or event.dir != "out" or connection is None:
            continue
        for pack in [] if connection in ports else split_packs(event.data):
            if pack.reported_port:
                ports[connection] = pack.reported_port
    return ports
