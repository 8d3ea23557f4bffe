"""Runs each program beside its peer, interleaved, and prints the ratios of the medians.

Called by scripts/bench from the tree's root, with the release built in build/release.
"""
import argparse
import contextlib
import json
import os
import platform
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

BIN = os.path.abspath("build/release/bin")
HOST = os.path.join(BIN, "migration-host")
CTL = os.path.join(BIN, "quorvelctl")
IMAGE = os.path.join(BIN, "legacy-image")
FLOOR = os.path.join(BIN, "floor")
FLOORS = os.path.join(BIN, "floors")
QUIET = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}


def run(*command, **options):
    subprocess.run(command, check=True, **{**QUIET, **options})


def seconds(*command, **options):
    start = time.perf_counter()
    run(*command, **options)
    return time.perf_counter() - start


def spread(times):
    middle = statistics.median(times)
    return middle, (max(times) - min(times)) / middle if middle else 0.0


class Row:
    def __init__(self, name, work, target, measure, unit=1.0):
        self.name, self.work, self.target, self.measure, self.unit = name, work, target, measure, unit


# --- Where it is measured ------------------------------------------------------------------------


@contextlib.contextmanager
def tmpfs():
    with tempfile.TemporaryDirectory(dir="/dev/shm", prefix="quorvel-bench.") as place:
        yield place


@contextlib.contextmanager
def ext4():
    """A journalled ext4 whose image lies on tmpfs: a disk without a disk's own noise."""
    with tmpfs() as place:
        image, mount = f"{place}/image", f"{place}/mount"
        run("truncate", "-s", "4G", image)
        run("mkfs.ext4", "-q", "-F", image)
        os.mkdir(mount)
        run("mount", "-o", "loop", image, mount)
        try:
            yield mount
        finally:
            run("umount", mount)


def can_mount():
    with contextlib.suppress(Exception):
        with ext4():
            return True
    return False


# --- Pairs of commands -----------------------------------------------------------------------------


def interleaved(rounds, *programs):
    """Ours, its peer and perhaps a floor in turn, `rounds` times after one that is not counted."""
    times = [[program() for program in programs] for _ in range(rounds + 1)][1:]
    return list(zip(*times))


def device(place, name, apps):
    tree = os.path.join(place, name)
    shutil.rmtree(tree, ignore_errors=True)
    run(IMAGE, tree, "--apps", str(apps), "--plain", "--no-icons")
    run("sync", "-f", place)
    return tree


def migrate(place, apps):
    tree = device(place, "device", apps)
    took = seconds(HOST, "migrate", "--quiet", "--root", tree)
    shutil.rmtree(tree)
    return took


def floor(place, apps, syncs):
    tree = device(place, "floor", apps)
    took = seconds(FLOOR, tree, str(syncs))
    shutil.rmtree(tree)
    return took


def migration(where, apps=1000, syncs=0):
    def measure(rounds):
        with where() as place:
            return interleaved(rounds, lambda: migrate(place, apps),
                               lambda: floor(place, apps, syncs), lambda: floor(place, apps, "steps"))
    return measure


def growth(rounds):
    with tmpfs() as place:
        return interleaved(max(2, rounds // 2), lambda: migrate(place, 10_000), lambda: migrate(place, 1_000))


def small_files(place, name, directories=500, files=100):
    tree = os.path.join(place, name)
    for d in range(directories):
        os.makedirs(f"{tree}/d{d}")
        for f in range(files):
            with open(f"{tree}/d{d}/f{f}", "wb") as out:
                out.write(b"x" * 100)
    return tree


def removal(rounds):
    with tmpfs() as place:
        small_files(place, "seed")

        def one(*command):
            run("cp", "-a", f"{place}/seed", f"{place}/tree")
            return seconds(*command, f"{place}/tree")
        return interleaved(rounds, lambda: one(CTL, "remove"), lambda: one("rm", "-rf"),
                           lambda: one(FLOORS, "remove"))


def copying(make, floor=None):
    def measure(rounds):
        with tmpfs() as place:
            make(place)

            def one(*command):
                took = seconds(*command, f"{place}/seed", f"{place}/copy")
                run("rm", "-rf", f"{place}/copy")
                return took
            programs = [lambda: one(CTL, "copy"), lambda: one("cp", "-a")]
            if floor:
                programs.append(lambda: one(FLOORS, floor))
            return interleaved(rounds, *programs)
    return measure


def sparse_file(place):
    run("truncate", "-s", "100G", f"{place}/seed")
    with open(f"{place}/seed", "r+b") as out:
        for i in range(10):
            out.seek(i * (9 << 30))
            out.write(b"data" * 1024)


def large_file(place):
    with open(f"{place}/seed", "wb") as out:
        for _ in range(2048):
            out.write(os.urandom(4096) * 256)


def moving(rounds):
    with tmpfs() as place, other_tmpfs() as other:
        small_files(place, "seed")

        def one(*command):
            run("cp", "-a", f"{place}/seed", f"{place}/tree")
            took = seconds(*command, f"{place}/tree", f"{other}/tree")
            run("rm", "-rf", f"{other}/tree")
            return took
        return interleaved(rounds, lambda: one(CTL, "move"), lambda: one("mv"))


@contextlib.contextmanager
def other_tmpfs():
    with tmpfs() as place:
        run("mount", "-t", "tmpfs", "none", place)
        try:
            yield place
        finally:
            run("umount", place)


def listing(rounds):
    with tmpfs() as place:
        for i in range(200_000):
            os.close(os.open(f"{place}/entry-{i}", os.O_CREAT | os.O_WRONLY))
        return interleaved(rounds, *(
            lambda command=command: seconds(*command, place)
            for command in ((CTL, "list"), ("ls", "-f"), (FLOORS, "list"))))


def standardization(wrong):
    def measure(rounds):
        with tmpfs() as place:
            tree = small_files(place, "seed")

            def one(command):
                run("chown", "-R", "0:0" if wrong else "33:33", tree)
                if wrong:
                    run("chmod", "-R", "u=rwX,go=", tree)
                return seconds("sh", "-c", command)
            ours = f"{CTL} standardize --uid 33 --gid 33 {tree}"
            peer = f"chown -R 33:33 {tree} && chmod -R u=rwX,go=rX {tree}"
            seconds("sh", "-c", peer)
            floor = f"{FLOORS} standardize {tree}"
            programs = [lambda: one(ours), lambda: one(peer)]
            return interleaved(rounds, *programs, *([lambda: one(floor)] if wrong else []))
    return measure


def digest(rounds):
    with tmpfs() as place:
        file = f"{place}/file"
        with open(file, "wb") as out:
            for _ in range(1024):
                out.write(os.urandom(4096) * 256)
        return interleaved(rounds, lambda: seconds(CTL, "digest", file),
                           lambda: seconds("openssl", "dgst", "-sha256", file))


def start(rounds):
    def many(*command):
        return seconds("sh", "-c", "for i in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20; do "
                       + " ".join(command) + "; done")
    return interleaved(rounds, lambda: many(CTL, "--version"), lambda: many("cp", "--version"))


def in_process(name):
    def measure(rounds):
        out = subprocess.run(
            [os.path.join(BIN, "operations_bench"), f"--benchmark_filter=^{name}/",
             f"--benchmark_repetitions={rounds}", "--benchmark_enable_random_interleaving=true",
             "--benchmark_min_time=0.2", "--benchmark_format=json"],
            check=True, capture_output=True, text=True, env={**os.environ, "TMPDIR": "/dev/shm"})
        runs = [r for r in json.loads(out.stdout)["benchmarks"] if r["run_type"] == "iteration"]
        def times(of):
            return [r["real_time"] / 1e9 for r in runs if r["name"].split("/")[1] == of]
        return [t for t in map(times, ("ours", "peer", "floor")) if t]
    return measure


ROWS = [
    Row("migrate-ext4", "migrate 1,000 plain apps ÷ floor program (3 flushes), ext4", 1.3, migration(ext4)),
    Row("migrate-tmpfs", "the same on tmpfs", 3.0, migration(tmpfs)),
    Row("growth", "migrate 10,000 ÷ 1,000 apps", 10.3, growth),
    Row("list", "list 200,000 entries ÷ `ls -f`", 0.8, listing),
    Row("list-operation", "the listing operation ÷ raw getdents64", 2.0, in_process("list")),
    Row("remove", "remove 50,000 files ÷ `rm -rf`", 0.92, removal),
    Row("copy", "copy 50,000 files ÷ `cp -a`", 0.75, copying(lambda place: small_files(place, "seed"))),
    Row("copy-sparse", "copy a 100 GiB sparse file ÷ `cp -a`", 1.0, copying(sparse_file, "copy-sparse")),
    Row("copy-large", "copy a 2 GiB file ÷ `cp -a`", 1.0, copying(large_file, "copy-data")),
    Row("move", "move 50,000 files to another file system ÷ `mv`", 0.8, moving),
    Row("standardize-wrong", "standardize, all wrong ÷ `chown -R`, then `chmod -R`", 0.8, standardization(True)),
    Row("standardize-right", "standardize, all right ÷ the same", 0.3, standardization(False)),
    Row("digest", "SHA-256 of 1 GiB ÷ `openssl dgst`", 1.0, digest),
    Row("xml", "read an XML property list of 20 MB ÷ expat with empty handlers", 1.5, in_process("xml")),
    Row("binary", "read a binary property list ÷ touching each object once", 3.0, in_process("binary")),
    Row("start", "start of `quorvelctl` ÷ start of `cp` (20 times)", 2.5, start),
    Row("catalog", "catalog of 5,000 bundles ÷ open and read", 2.0, in_process("catalog")),
    Row("log", "a log line ÷ snprintf and write", 2.0, in_process("log")),
]
PRIVILEGED = {"migrate-ext4", "move"}


def milliseconds(time):
    return f"{time * 1000:.3g} ms" if time >= 1e-3 else f"{time * 1e6:.3g} µs"


def machine():
    with open("/proc/cpuinfo") as info:
        model = next((line.split(":")[1].strip() for line in info if line.startswith("model name")), "?")
    return f"{model}, {os.cpu_count()} cores, Linux {platform.release()}"


def verdict(ratio, target, floor):
    """At its floor: what the kernel alone takes misses the target, and ours is within a tenth."""
    if ratio <= target:
        return "yes"
    return "at its floor" if floor and floor > target and ratio <= 1.1 * floor else "no"


def line_of(row, rounds):
    ours, peer, *floors = row.measure(rounds)
    (a, a_spread), (b, b_spread) = spread(ours), spread(peer)
    ratio = a / b
    floor = statistics.median(floors[0]) / b if floors else None
    return (f"| {ratio:.2f} | ≤ {row.target} | {verdict(ratio, row.target, floor)}"
            f" | {f'{floor:.2f}' if floor else ''} | {row.work} | {milliseconds(a)} ± {a_spread / 2:.0%}"
            f" | {milliseconds(b)} ± {b_spread / 2:.0%} | {row.name} |")


def main():
    parser = argparse.ArgumentParser(prog="scripts/bench")
    parser.add_argument("rows", nargs="*", metavar="ROW")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--write", action="store_true", help="write docs/performance.md")
    options = parser.parse_args()
    unknown = set(options.rows) - {row.name for row in ROWS}
    if unknown:
        parser.error(f"no such row: {', '.join(sorted(unknown))}; there are: "
                     + ", ".join(row.name for row in ROWS))
    privileged = can_mount()
    revision = subprocess.run(["git", "describe", "--always", "--dirty"], capture_output=True, text=True).stdout.strip()
    lines = [f"{machine()}; commit {revision}; medians of {options.rounds} interleaved rounds.", "",
             "| ratio | target | met | floor ÷ peer | work | ours | peer | row |",
             "|---|---|---|---|---|---|---|---|"]
    print("\n".join(lines), flush=True)
    for row in ROWS:
        if options.rows and row.name not in options.rows:
            continue
        if row.name in PRIVILEGED and not privileged:
            line = f"| - | ≤ {row.target} | not measured: no privileges to mount | | {row.work} | | | {row.name} |"
        else:
            line = line_of(row, options.rounds)
        print(line, flush=True)
        lines.append(line)
    if options.write:
        write(lines)


def write(lines):
    """The table stands between two marks; what is written around it stays."""
    begin, end = "<!-- table -->", "<!-- end of table -->"
    with open("docs/performance.md") as file:
        before, rest = file.read().split(begin)
    with open("docs/performance.md", "w") as file:
        file.write(before + begin + "\n" + "\n".join(lines) + "\n" + end + rest.split(end)[1])


if __name__ == "__main__":
    sys.exit(main())
