"""Changes the daemon at one place at a time and looks whether a test notices.

Comparisons and log messages are all in one build of the daemon, made from a scratch copy of the
sources: a number in the environment turns one of them on (mutation.h). Constants, tables, answers,
`&&` and `||` are compiled one by one, the changed files alone, and linked with the rest of that
build. Which tests come by a function is found out once; a mutant is shown to those only, the quick
ones first, unit tests before whole-daemon tests. A failure counts when it comes twice.
"""

import argparse
import concurrent.futures
import json
import os
import random
import re
import shlex
import shutil
import signal
import subprocess
import sys
import threading
import time
from collections import Counter
from dataclasses import dataclass
from pathlib import Path

from sites import KINDS, Reader, Site

MAP_SIZE = 8192
PROGRAMS = {"unit": "vexa_unit_tests", "module": "vexa_module_tests", "model": "vexa_model_tests"}
LONGEST_TEST_S = 120.0
QUICK_S = 0.3  # the others, which wait for real, are shown after these, a few at a time
BATCH = 12
SURVIVED = ("alive", "unreached", "error")
stopping = threading.Event()


@dataclass(frozen=True)
class Test:
    program: str
    name: str
    seconds: float
    reached: frozenset[int]


@dataclass(frozen=True)
class Outcome:
    site: Site
    verdict: str  # compiler, unit, module, model, alive, unreached, error
    by: str


def say(text: str) -> None:
    print(f"mutate: {text}", file=sys.stderr, flush=True)


def run(command: list[str], seconds: float, cwd: Path, environment: dict[str, str],
        output: Path | None = None) -> int:
    """The status; -1 for one that had to be ended. In a session of its own, ended as a whole."""
    with open(output or os.devnull, "wb") as out:
        process = subprocess.Popen(command, cwd=cwd, env={**os.environ, **environment}, stdout=out,
                                   stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                   start_new_session=True)
        try:
            end = time.monotonic() + seconds
            while not stopping.is_set():
                try:
                    return process.wait(min(1.0, max(0.01, end - time.monotonic())))
                except subprocess.TimeoutExpired:
                    if time.monotonic() >= end:
                        return -1
            return -1
        finally:
            try:
                os.killpg(process.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            process.wait()


def make_tree(root: Path, tree: Path, reader: Reader) -> None:
    """The checkout's files, the daemon's with all switched mutants in them."""
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard"], cwd=root, check=True,
                            stdout=subprocess.PIPE, text=True).stdout.split("\n")
    targets = {"port_bridge/CMakeLists.txt": "vexa_daemon", "main/CMakeLists.txt": "vexa_at_client"}
    for name in listed:
        if not (root / name).is_file():
            continue
        data = (root / name).read_bytes()
        if name in reader.texts:
            data = reader.switched_text(name).encode()
        elif name in targets:
            data += (f"target_compile_options({targets[name]} PRIVATE -w -include "
                     "${PROJECT_SOURCE_DIR}/tests/mutation/mutation.h)\n").encode()
        to = tree / name
        to.parent.mkdir(parents=True, exist_ok=True)
        if not to.exists() or to.read_bytes() != data:
            to.write_bytes(data)
            shutil.copymode(root / name, to)


def build_tree(tree: Path) -> None:
    log = tree.parent / "build.log"
    say(f"building the tests and the daemon with all switched mutants ({log})")
    command = [str(tree / "script/build"), "host", "vexa_at_client", *PROGRAMS.values()]
    if run(command, 3600, tree, {}, log) != 0:
        if stopping.is_set():
            sys.exit(130)
        sys.exit(f"mutate: the build failed, see {log}")


def listed_tests(build: Path, program: str) -> list[str]:
    text = subprocess.run([str(build / program), "--gtest_list_tests"], check=True, text=True,
                          stdout=subprocess.PIPE, cwd=build).stdout
    suite, names = "", []
    for line in text.splitlines():
        word = line.split("#")[0].rstrip()
        if line.startswith("  "):
            names.append(suite + word.strip())
        elif word.endswith("."):
            suite = word
    return [name for name in names if "DISABLED_" not in name]


class Tests:
    """Every test, how long it takes and which probes it comes by; kept beside the build."""

    def __init__(self, build: Path, jobs: int) -> None:
        self.build = build
        self.all: list[Test] = []
        programs = [build / name for name in [*PROGRAMS.values(), "vexa_at_client"]]
        stamp = str([(path.name, path.stat().st_mtime_ns) for path in programs])
        kept = build.parent.parent.parent / "tests.json"
        if kept.exists():
            found = json.loads(kept.read_text(encoding="utf-8"))
            if found["stamp"] == stamp:
                self.all = [Test(p, n, s, frozenset(r)) for p, n, s, r in found["tests"]]
                return
        self.measure(jobs)
        if stopping.is_set():
            sys.exit(130)
        kept.write_text(json.dumps({"stamp": stamp, "tests": [
            (test.program, test.name, test.seconds, sorted(test.reached)) for test in self.all]}),
            encoding="utf-8")

    def measure(self, jobs: int) -> None:
        wanted = [(program, name) for program, file in PROGRAMS.items()
                  for name in listed_tests(self.build, file)]
        say(f"{len(wanted)} tests once each, to see which functions they come by")
        maps = self.build / "maps"
        maps.mkdir(exist_ok=True)

        def one(index: int) -> Test | None:
            program, name = wanted[index]
            area = maps / str(index)
            area.write_bytes(bytes(MAP_SIZE))
            for _ in range(2):
                start = time.monotonic()
                status = run([str(self.build / PROGRAMS[program]), f"--gtest_filter={name}"],
                             LONGEST_TEST_S, self.build, {"VEXA_MUTANT_MAP": str(area)})
                seconds = time.monotonic() - start
                if status == 0:
                    reached = frozenset(i for i, byte in enumerate(area.read_bytes()) if byte)
                    area.unlink()
                    return Test(program, name, seconds, reached)
            say(f"left out, because it fails without a mutant: {name}")
            return None

        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            self.all = [test for test in pool.map(one, range(len(wanted))) if test is not None]


class Builder:
    """Compiles the files that one mutant changes, and links them with the rest."""

    def __init__(self, root: Path, tree: Path, reader: Reader) -> None:
        self.root, self.tree, self.reader = root, tree, reader
        self.build = tree / "build/host"
        rows = json.loads((self.build / "compile_commands.json").read_text(encoding="utf-8"))
        self.commands: dict[str, list[str]] = {}
        for row in rows:
            name = os.path.relpath(row["file"], tree)
            self.commands.setdefault(name, shlex.split(row["command"]))
        self.links = {name: self.link_command(name) for name in
                      ("vexa_unit_tests", "vexa_at_client")}
        self.needs = self.dependencies()

    def link_command(self, target: str) -> list[str]:
        text = subprocess.run(["ninja", "-t", "commands", target], cwd=self.build, check=True,
                              stdout=subprocess.PIPE, text=True).stdout.splitlines()[-1]
        text = text.split(" && ")[1]
        return [word.replace("\\$", "$") for word in shlex.split(text)]  # of $ORIGIN

    def dependencies(self) -> dict[str, set[str]]:
        """From a header of the daemon to the sources that include it."""
        text = subprocess.run(["ninja", "-t", "deps"], cwd=self.build, check=True,
                              stdout=subprocess.PIPE, text=True).stdout
        needs: dict[str, set[str]] = {}
        for block in text.split("\n\n"):
            lines = [line.strip() for line in block.splitlines()[1:]]
            paths = [os.path.relpath(self.build / line, self.tree) for line in lines if line]
            if not paths:
                continue
            for path in paths[1:]:
                if path in self.reader.texts and path.endswith(".h"):
                    needs.setdefault(path, set()).add(paths[0])
        return needs

    def compile(self, source: str, text: str | None, work: Path) -> Path | None:
        """The object; None when the compiler refuses. `text` None: the file as it stands."""
        command = self.commands[source]
        if command[0].endswith("ccache"):
            command = command[1:]
        is_test = source.startswith("tests/")
        name = source.replace("/", "_")
        output = work / (name + ".o")
        words: list[str] = [command[0], f"-I{work}/include"]
        skip = False
        for word in command[1:]:
            if skip:
                skip = False
            elif word == "-o":
                skip = True
            elif word == "-c" or word.endswith("/" + source):
                pass
            elif word.endswith("tests/mutation/mutation.h"):
                words.pop()  # its -include
            elif word.startswith("-O") and not is_test:
                words.append("-O0")
            elif word.startswith("-g") and not is_test:
                pass
            elif word.startswith("-D_FORTIFY_SOURCE") and not is_test:
                pass
            else:
                words.append(word)
        path = self.tree / source
        if not is_test:
            path = work / name
            content = text if text is not None else self.reader.texts[source]
            path.write_text(f'#line 1 "{self.tree / source}"\n{content}', encoding="utf-8")
        words += ["-w", "-o", str(output), "-c", str(path)]
        log = work / "compiler.log"
        return output if run(words, 300, self.build, {"CCACHE_DISABLE": "1"}, log) == 0 else None

    def changed_text(self, site: Site) -> str:
        text = self.reader.texts[site.file]
        return text[:site.start] + site.after + text[site.end:]

    def make(self, site: Site, work: Path) -> bool:
        """Both programs with the mutant in `work`; False when the compiler refuses it."""
        (work / "include").mkdir(parents=True)
        if site.file.endswith(".cpp"):
            objects = {site.file: self.compile(site.file, self.changed_text(site), work)}
        else:
            for name, text in self.reader.texts.items():
                if name.endswith(".h"):
                    text = self.changed_text(site) if name == site.file else text
                    (work / "include" / Path(name).name).write_text(text, encoding="utf-8")
            objects = {}
            names = self.reader.names_of(site) if site.name else None
            for source in sorted(self.needs.get(site.file, set())):
                if source not in self.reader.texts and not source.startswith("tests/unit/"):
                    continue
                # Compiling a test takes long; one that names no changed constant stays as it is.
                if names is not None and source.startswith("tests/") and not names.search(
                        (self.tree / source).read_text(encoding="utf-8")):
                    continue
                objects[source] = self.compile(source, None, work)
                if objects[source] is None:
                    break
        if any(made is None for made in objects.values()):
            return False
        return self.link(objects, work)

    def link(self, objects: dict[str, Path | None], work: Path) -> bool:
        """The mutant's objects stand first, so that its inline functions are the ones taken."""
        (work / "lib").symlink_to(self.build / "lib")
        (work / "scenarios").symlink_to(self.build / "scenarios")
        for program in ("vexa_module_tests", "vexa_model_tests", "vexa-module-keeper",
                        "vexa-platform", "vexa-qmi-host", "vexa-qmi-client"):
            os.link(self.build / program, work / program)
        archive = work / "libvexa_daemon.a"
        shutil.copyfile(self.build / "port_bridge/libvexa_daemon.a", archive)
        rooms = [name for name in objects if name.endswith(".cpp")
                 and not name.startswith(("tests/", "main/"))]
        if rooms:
            subprocess.run(["ar", "d", str(archive)] + [Path(name).name + ".o" for name in rooms],
                           check=True)
        for target, words in self.links.items():
            mine = [str(path) for name, path in objects.items()
                    if path is not None and name.startswith("main/") <= (target == "vexa_at_client")
                    and name.startswith("tests/") <= (target == "vexa_unit_tests")]
            left_out = {name for name in objects if name.startswith(("tests/", "main/"))}
            command = [words[0], "-fuse-ld=gold", "-s", *mine]
            for word in words[1:]:
                if word == target:
                    word = str(work / target)
                elif word.endswith("libvexa_daemon.a"):
                    word = str(archive)
                elif any(word.endswith("/" + Path(name).name + ".o") for name in left_out):
                    continue
                command.append(word)
            if run(command, 300, self.build, {}, work / "linker.log") != 0:
                raise RuntimeError((work / "linker.log").read_text(encoding="utf-8")[:2000])
        return True


def in_turn(tests: list[Test]) -> list[Test]:
    """The quickest of every suite, then the second of every suite and so on."""
    ranks: Counter[str] = Counter()
    ranked: list[tuple[int, float, Test]] = []
    for test in sorted(tests, key=lambda test: test.seconds):
        suite = test.name.split(".")[0]
        ranked.append((ranks[suite], test.seconds, test))
        ranks[suite] += 1
    return [test for _, _, test in sorted(ranked, key=lambda row: row[:2])]


class Check:
    def __init__(self, reader: Reader, tests: Tests, builder: Builder, scratch: Path,
                 most: int | None, whole: bool) -> None:
        self.reader, self.tests, self.builder, self.scratch = reader, tests, builder, scratch
        self.most, self.whole = most, whole

    def fails(self, work: Path, program: str, names: list[str], seconds: float,
              environment: dict[str, str]) -> str | None:
        """The first test of these that fails, twice; None when all pass or fail only once."""
        output = work / "test.log"
        rest = list(names)
        while rest:
            command = [str(work / PROGRAMS[program]), "--gtest_fail_fast",
                       "--gtest_filter=" + ":".join(rest)]
            status = run(command, seconds, work, environment, output)
            if status == 0 or stopping.is_set():
                return None
            text = output.read_text(encoding="utf-8", errors="replace")
            # What stands behind a failure is said to run as well, and then skipped.
            skipped = set(re.findall(r"\[  SKIPPED \] (\S+)", text))
            ran = [name for name in re.findall(r"\[ RUN      \] (\S+)", text)
                   if name not in skipped]
            if not ran and status not in (-1, -signal.SIGSEGV):
                raise RuntimeError(f"{command[0]} does not run: {text[:200]}")
            failed = str(ran[-1] if ran else rest[0])
            failed = next(iter(re.findall(r"\[  FAILED  \] (\S+?),? ", text)), failed).rstrip(",")
            if failed not in rest:
                failed = ran[-1] if ran and ran[-1] in rest else rest[0]
            again = run([command[0], f"--gtest_filter={failed}"], seconds, work, environment,
                        output)
            if stopping.is_set():
                return None
            if again != 0:
                return failed + (" (time-out)" if again == -1 else "")
            at = rest.index(failed)
            rest = rest[:at] + rest[at + 1:] if status != -1 else rest[at + 1:]
            if not ran:
                return None
            rest = [name for name in rest if name not in ran[:-1]]
        return None

    def wanted_tests(self, site: Site) -> list[Test]:
        if site.switched:
            return [test for test in self.tests.all if site.number in test.reached]
        bodies = self.reader.users_of(site) if site.name else self.reader.body_of(site)[-1:]
        if not bodies:
            bodies = [body for body in self.reader.bodies if body.file == site.file]
        if not bodies and site.file.endswith(".h"):
            users = self.builder.needs.get(site.file, set())
            bodies = [body for body in self.reader.bodies if body.file in users]
        numbers = {body.number for body in bodies}
        # Tables and pure functions that are checked while compiling have no body to come by.
        own = Path(site.file).stem.replace("_", "").lower()
        return [test for test in self.tests.all
                if numbers & test.reached or own in test.name.lower()]

    def outcome(self, site: Site) -> Outcome:
        try:
            return self.one(site)
        except (OSError, RuntimeError, subprocess.SubprocessError) as error:
            return Outcome(site, "error", str(error).split("\n")[0])

    def one(self, site: Site) -> Outcome:
        work = self.scratch / str(site.number)
        shutil.rmtree(work, ignore_errors=True)
        environment = {}
        try:
            if site.switched:
                environment["VEXA_MUTANT"] = str(site.number)
                programs = self.builder.build
                work.mkdir(parents=True)
            else:
                programs = work
                if not self.builder.make(site, work):
                    return Outcome(site, "compiler", "")
            if not site.switched:
                environment["VEXA_MUTANT"] = "-1"
            tests = in_turn(self.wanted_tests(site))
            if not tests:
                return Outcome(site, "unreached", "")
            for program in PROGRAMS if not self.whole else ("module", "model"):
                mine = [test for test in tests if test.program == program]
                if program != "unit" and self.most is not None:
                    mine = mine[:self.most]
                quick = [test for test in mine if test.seconds < QUICK_S]
                slow = [test for test in mine if test.seconds >= QUICK_S]
                for group in [quick] + [slow[i:i + BATCH] for i in range(0, len(slow), BATCH)]:
                    if not group or stopping.is_set():
                        continue
                    limit = 20 + 3 * sum(test.seconds for test in group)
                    failed = self.fails_in(programs, work, program, group, limit, environment)
                    if failed is not None:
                        return Outcome(site, program, failed)
            return Outcome(site, "alive", f"{len(tests)} tests come by")
        finally:
            shutil.rmtree(work, ignore_errors=True)

    def fails_in(self, programs: Path, work: Path, program: str, group: list[Test], limit: float,
                 environment: dict[str, str]) -> str | None:
        names = [test.name for test in group]
        if programs == work:
            return self.fails(work, program, names, limit, environment)
        # Programs are found beside the running one: links would do, but the build folder is there.
        link = work / PROGRAMS[program]
        if not link.exists():
            for name in PROGRAMS.values():
                os.link(programs / name, work / name)
            for name in ("vexa_at_client", "vexa-module-keeper", "vexa-platform", "vexa-qmi-host",
                         "vexa-qmi-client"):
                os.link(programs / name, work / name)
            (work / "lib").symlink_to(programs / "lib")
            (work / "scenarios").symlink_to(programs / "scenarios")
        return self.fails(work, program, names, limit, environment)


def chosen_sites(reader: Reader, arguments: argparse.Namespace) -> list[Site]:
    sites = [site for site in reader.sites
             if (not arguments.kind or site.kind in arguments.kind)
             and (not arguments.file or any(part in site.file for part in arguments.file))
             and (not arguments.number or site.number in arguments.number)
             and (not arguments.switched or site.switched)]
    if arguments.survived:
        lines = arguments.survived.read_text(encoding="utf-8")
        numbers = {int(number) for number in re.findall(r"^\S+: \w+ (\d+), ", lines, re.MULTILINE)}
        sites = [site for site in sites if site.number in numbers]
    if arguments.every > 1:
        sites = random.Random(1).sample(sites, (len(sites) + arguments.every - 1)
                                        // arguments.every)
    if arguments.limit:
        sites = random.Random(1).sample(sites, min(arguments.limit, len(sites)))
    return sorted(sites, key=lambda site: (not site.switched, site.number))


def written(outcome: Outcome) -> str:
    site = outcome.site
    return (f"{site.where()}: {site.kind} {site.number}, {site.before} became "
            f"{site.after or 'nothing'} ({outcome.verdict}: {outcome.by})")


def told_before(file: Path | None, sites: list[Site]) -> list[Outcome]:
    """What an earlier run wrote with written()."""
    if file is None or not file.exists():
        return []
    known = {site.number: site for site in sites}
    found = re.findall(r"^\S+: \w+ (\d+), .*\((\w+): (.*)\)$", file.read_text(encoding="utf-8"),
                       re.MULTILINE)
    return [Outcome(known[int(number)], verdict, by) for number, verdict, by in found
            if int(number) in known]


def summary(outcomes: list[Outcome]) -> None:
    verdicts = ("compiler", "unit", "module", "model", "alive", "unreached", "error")
    print(f"{'':12}" + "".join(f"{name:>10}" for name in ("made",) + verdicts))
    for kind in KINDS:
        counts = Counter(outcome.verdict for outcome in outcomes if outcome.site.kind == kind)
        cells = [sum(counts.values())] + [counts[verdict] for verdict in verdicts]
        print(f"{kind:12}" + "".join(f"{cell:10}" for cell in cells))


def parsed() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="script/mutate", description=__doc__.split("\n\n")[0])
    parser.add_argument("--kind", action="append", choices=KINDS, help="of these kinds only")
    parser.add_argument("--file", action="append", help="of files whose path holds this")
    parser.add_argument("--number", action="append", type=int, help="this one only")
    parser.add_argument("--switched", action="store_true",
                        help="only those that need no compiler of their own")
    parser.add_argument("--every", type=int, default=1, metavar="N", help="a sample: one of N")
    parser.add_argument("--limit", type=int, default=0, metavar="N", help="a sample: N at most")
    parser.add_argument("--jobs", type=int, default=4, help="mutants at a time (default 4)")
    parser.add_argument("--most", type=int, metavar="N",
                        help="show each mutant to N whole-daemon tests at most, of many suites")
    parser.add_argument("--whole", action="store_true", help="whole-daemon tests only")
    parser.add_argument("--from", type=Path, metavar="FILE", dest="survived",
                        help="only the survivors of the run that wrote this")
    parser.add_argument("--no-build", action="store_true",
                        help="take the programs of the run before as they are")
    parser.add_argument("--list", action="store_true", help="print the mutants, run nothing")
    parser.add_argument("--survivors", type=Path, metavar="FILE",
                        help="write there what no test noticed")
    parser.add_argument("--all", type=Path, metavar="FILE",
                        help="write there what became of each; what stands in it is not done again")
    return parser.parse_args()


def main() -> int:
    arguments = parsed()
    root = Path(os.environ["ROOT"])
    scratch = root / "build/mutation"
    tree, sources = scratch / "tree", scratch / "sources"
    reader = Reader(sources if arguments.no_build else root)
    sites = chosen_sites(reader, arguments)
    if not sites:
        say("no mutant is like that")
        return 2
    if arguments.list:
        for site in sites:
            print(f"{site.where()}: {site.kind} {site.number}, {site.before} becomes "
                  f"{site.after or 'nothing'}")
        return 0
    signal.signal(signal.SIGINT, lambda *_: stopping.set())
    signal.signal(signal.SIGTERM, lambda *_: stopping.set())
    if not arguments.no_build:
        for name, text in reader.texts.items():
            (sources / name).parent.mkdir(parents=True, exist_ok=True)
            (sources / name).write_text(text, encoding="utf-8")
        make_tree(root, tree, reader)
        build_tree(tree)
    tests = Tests(tree / "build/host", 2 * arguments.jobs)
    work = scratch / f"work-{os.getpid()}"
    check = Check(reader, tests, Builder(root, tree, reader), work, arguments.most,
                  arguments.whole)
    outcomes = told_before(arguments.all, sites)
    done = {outcome.site.number for outcome in outcomes}
    sites = [site for site in sites if site.number not in done]
    before = len(outcomes)
    start = told = time.monotonic()
    record = open(arguments.all, "a", encoding="utf-8") if arguments.all else None
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        running = [pool.submit(check.outcome, site) for site in sites]
        for future in concurrent.futures.as_completed(running):
            if stopping.is_set():
                for other in running:
                    other.cancel()
                break
            outcomes.append(future.result())
            if record:
                print(written(outcomes[-1]), file=record, flush=True)
            now = time.monotonic()
            ready = len(outcomes) - before
            if now - told > 10 or ready == len(sites):
                told = now
                left = (now - start) / ready * (len(sites) - ready)
                alive = sum(outcome.verdict in SURVIVED for outcome in outcomes)
                say(f"{ready} of {len(sites)}, {alive} alive, {left / 60:.0f} min left")
    shutil.rmtree(work, ignore_errors=True)
    survivors = sorted((outcome for outcome in outcomes
                        if outcome.verdict in SURVIVED),
                       key=lambda outcome: outcome.site.number)
    lines = [written(outcome) for outcome in survivors]
    if arguments.survivors:
        arguments.survivors.write_text("".join(line + "\n" for line in lines), encoding="utf-8")
    else:
        print("\n".join(lines))
    summary(outcomes)
    if stopping.is_set():
        return 130
    return 1 if survivors else 0


if __name__ == "__main__":
    sys.exit(main())
