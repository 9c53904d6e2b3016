"""Sums the rig's objects up: one value for each contestant and figure."""

from collections import defaultdict
from collections.abc import Iterable, Mapping
from dataclasses import dataclass
from math import hypot, sqrt
from statistics import median, stdev
from typing import Any

Record = Mapping[str, Any]
Values = dict[str, float]


@dataclass(frozen=True)
class Figure:
    key: str
    title: str
    unit: str
    digits: int
    more_is_better: bool


FIGURES = (
    Figure("rest_ms", "a rest of 1 ms on this machine", "ms", 3, False),
    Figure("rests_a_second", "such rests one after the other", "a second", 0, True),
    Figure("answer_us_median", "answer, median", "µs", 0, False),
    Figure("answer_us_p99", "answer, 99 of 100 within", "µs", 0, False),
    Figure("taken_us", "answer to next command taken, median", "µs", 0, False),
    Figure("rate_1", "commands, one port", "a second", 0, True),
    Figure("rate_3", "commands, three ports", "a second", 0, True),
    Figure("platform_rate_1", "platform commands, one port", "a second", 0, True),
    Figure("platform_rate_3", "platform commands, three ports", "a second", 0, True),
    Figure("cpu_us_a_command", "CPU a command", "µs", 1, False),
    Figure("to_modem_1500", "host to modem, 1,500 bytes", "MiB/s", 1, True),
    Figure("to_modem_16384", "host to modem, 16 KiB", "MiB/s", 1, True),
    Figure("to_host_1500", "modem to host, 1,500 bytes", "MiB/s", 2, True),
    Figure("to_host_16384", "modem to host, 16 KiB", "MiB/s", 2, True),
    Figure("cpu_to_modem_1500", "CPU a MiB, host to modem, 1,500 bytes", "ms", 2, False),
    Figure("cpu_to_modem_16384", "CPU a MiB, host to modem, 16 KiB", "ms", 2, False),
    Figure("cpu_to_host_1500", "CPU a MiB, modem to host, 1,500 bytes", "ms", 2, False),
    Figure("cpu_to_host_16384", "CPU a MiB, modem to host, 16 KiB", "ms", 2, False),
    Figure("chunk_ms_1500", "a chunk to the host, 1,500 bytes", "ms", 3, False),
    Figure("chunk_ms_16384", "a chunk to the host, 16 KiB", "ms", 3, False),
)


def percentile(samples: list[float], part: float) -> float:
    """The smallest sample that at least this part of them does not exceed."""
    ordered = sorted(samples)
    return ordered[min(len(ordered) - 1, int(part * len(ordered)))]


def stream_values(record: Record) -> Iterable[tuple[str, float]]:
    way = f"{record['direction'].replace(' ', '_')}_{record['chunk']}"
    yield way, record["mib_a_second"]
    if record["cpu_ms_a_mib"] > 0:
        yield f"cpu_{way}", record["cpu_ms_a_mib"]
    if record["direction"] == "to host" and record["chunks_read"] > 0:
        yield f"chunk_ms_{record['chunk']}", record["seconds"] * 1e3 / record["chunks_read"]


def rate_values(record: Record) -> Iterable[tuple[str, float]]:
    of_platform = "platform_" if record["command"] == "platform" else ""
    yield f"{of_platform}rate_{record['ports']}", record["commands_a_second"]
    if of_platform or record["ports"] != 1:
        return
    if record["taken_ns"]:
        yield "taken_us", median(record["taken_ns"]) / 1e3
    if record["cpu_us_a_command"] > 0:
        yield "cpu_us_a_command", record["cpu_us_a_command"]


# Behind a figure's key: the standard error of its median, as a part of it.
ERROR = "_error"
MEDIAN_OF_NORMAL = 1.2533  # a median's standard error, of the mean's


def error_of_median(seen: list[float]) -> float:
    return MEDIAN_OF_NORMAL * stdev(seen) / sqrt(len(seen)) / median(seen)


def sum_up(records: Iterable[Record]) -> dict[str, Values]:
    """Contestant -> key -> value: the median of the rounds, and how far it is to be trusted; for
    the answers, of all samples."""
    rounds: dict[str, dict[str, list[float]]] = defaultdict(lambda: defaultdict(list))
    samples: dict[str, list[float]] = defaultdict(list)
    for record in records:
        of_one = rounds[record["by"]]
        if record["figure"] == "rest":
            rest_ms = median(record["samples_ns"]) / 1e6
            of_one["rest_ms"].append(rest_ms)
            of_one["rests_a_second"].append(1e3 / rest_ms)
            continue
        if record["figure"] == "latency":
            samples[record["by"]] += [sample / 1e3 for sample in record["samples_ns"]]
            continue
        values = rate_values if record["figure"] == "rate" else stream_values
        for key, value in values(record):
            of_one[key].append(value)
    summed = {by: {key: median(seen) for key, seen in of_one.items()}
              for by, of_one in rounds.items()}
    for by, of_one in rounds.items():
        summed[by] |= {key + ERROR: error_of_median(seen) for key, seen in of_one.items()
                       if len(seen) > 1}
    for by, times in samples.items():
        summed[by]["answer_us_median"] = median(times)
        summed[by]["answer_us_p99"] = percentile(times, 0.99)
    return summed


@dataclass(frozen=True)
class Verdict:
    text: str
    value: float
    error: float | None  # the value's standard error; None when it is not known
    limit: float
    met: bool


@dataclass(frozen=True)
class Target:
    """What the daemon's figure, or its ratio to another contestant's, is to keep."""

    text: str
    key: str
    limit: float
    at_least: bool
    beside: str = ""  # whose figure it is divided by; empty: nobody's
    beside_key: str = ""  # another figure of theirs; empty: the same one


# A modem reader rests 1 ms twice for a final result, the platform's receiver 1 ms for an answer,
# and there is one receiver for all ports.
PAUSE_RATE = 500.0
PLATFORM_PAUSE_RATE = 1000.0
OF_PAUSES = 0.9
OF_RESTING = 0.95
CHUNK_MS = 1.0 / OF_RESTING
# Who tells what rests allow: a rest of 1 ms lasts longer than that, whoever rests.
RESTS = "pty pair"
RESTING = "resting bridge"

TARGETS = (
    Target("answer, median, of socat's", "answer_us_median", 1.25, False, "socat"),
    Target("answer, 99 of 100, of socat's", "answer_us_p99", 1.5, False, "socat"),
    Target("commands a second, one port", "rate_1", OF_PAUSES * PAUSE_RATE, True),
    Target("commands a second, three ports", "rate_3", OF_PAUSES * PAUSE_RATE * 3, True),
    Target("platform commands, one port", "platform_rate_1", OF_PAUSES * PLATFORM_PAUSE_RATE,
           True),
    Target("... of the rests that this machine has time for", "platform_rate_1", OF_PAUSES, True,
           RESTS, "rests_a_second"),
    Target("platform commands, three ports", "platform_rate_3", OF_PAUSES * PLATFORM_PAUSE_RATE,
           True),
    Target("... of the rests that this machine has time for", "platform_rate_3", OF_PAUSES, True,
           RESTS, "rests_a_second"),
    Target("host to modem, 1,500 bytes, of socat's", "to_modem_1500", 1.0, True, "socat"),
    Target("its CPU a MiB, of socat's", "cpu_to_modem_1500", 1.5, False, "socat"),
    Target("ms a chunk to the host, 1,500 bytes", "chunk_ms_1500", CHUNK_MS, False),
    Target("... modem to host, of the resting bridge's", "to_host_1500", OF_RESTING, True,
           RESTING),
    Target("ms a chunk to the host, 16 KiB", "chunk_ms_16384", CHUNK_MS, False),
    Target("... modem to host, of the resting bridge's", "to_host_16384", OF_RESTING, True,
           RESTING),
)


def judge(summed: Mapping[str, Values]) -> list[Verdict]:
    verdicts = []
    for target in TARGETS:
        own = summed.get("daemon", {})
        value, error = own.get(target.key), own.get(target.key + ERROR)
        if value is None:
            continue
        if target.beside:
            others = summed.get(target.beside, {})
            key = target.beside_key or target.key
            if not others.get(key):
                continue
            value /= others[key]
            beside_error = others.get(key + ERROR)
            error = hypot(error, beside_error) if error and beside_error else None
        met = value >= target.limit if target.at_least else value <= target.limit
        verdicts.append(Verdict(target.text, value, None if error is None else error * value,
                                target.limit, met))
    return verdicts
