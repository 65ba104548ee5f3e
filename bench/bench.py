#!/usr/bin/env python3
"""Runs the benchmarks and writes RESULTS.md: bench.py TOOL BENCH_BUILD_DIR.

Every ratio compares the tool with bench/raw_client_static doing the same
exchange against bench/native_agent, an agent that answers at once with a pre-built
answer, on 127.0.0.1:11038 (run this in a private network namespace, as
run.sh does). The commands run in turn, A B C A B C, so that the machine's
load falls on all alike (the same client loading libc dynamically joins them
as context); wall times and peak memory come from
bench_command (wait4), the rest from Google Benchmark.
"""

import json
import os
import platform
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.realpath(__file__))
ROOT = os.path.dirname(HERE)
MIB = 1024.0

# (label, tool arguments, raw client command, services listed, runs, target ratio,
#  peak RSS target in MiB)
CASES = (
    ("`-l`, 3 services", ["-l"], "get_tenants", 3, 500, 1.05, None),
    ("`-g`", ["-g"], "get_proxy", 3, 500, 1.05, None),
    ("`-l`, 1,000 services", ["-l"], "get_tenants", 1000, 100, 1.25, None),
    ("`-l`, 10,000 services", ["-l"], "get_tenants", 10000, 40, 1.4, 8),
    ("`--json -l`, 10,000 services", ["--json", "-l"], "get_tenants", 10000, 40, 1.5, 12),
    # A file naming every service the agent has, as --export writes it
    # (EXPORT_YAML) or as --json --export's "state" (EXPORT_JSON); the target
    # against -l is DIFF_TARGET (see diff_against_listing).
    ("`--diff`, 10,000 services (JSON file)", ["--diff", "EXPORT_JSON"], "get_tenants", 10000,
     40, 1.6, None),
    ("`--diff`, 10,000 services (YAML file)", ["--diff", "EXPORT_YAML"], "get_tenants", 10000,
     40, 1.6, None),
    ("`-l`, 30,000 services", ["-l"], "get_tenants", 30000, 15, None, None),
)
STARTUP_RUNS = 300
DIFF_SERVICES, DIFF_RUNS, DIFF_TARGET = 10000, 40, 2.0


class Agent:
    """native_agent serving `services` services, for the life of a `with`."""

    def __init__(self, build, services):
        self.process = subprocess.Popen([os.path.join(build, "native_agent"), str(services)],
                                        stdout=subprocess.PIPE, text=True)
        if self.process.stdout.readline().strip() != "ready":
            raise RuntimeError("native_agent did not start")

    def __enter__(self):
        return self

    def __exit__(self, *_exc):
        self.process.terminate()
        self.process.wait()


def side_by_side(build, runs, *commands):
    """[(median ms, p90 ms, peak KiB, failures, median CPU ms)] of each command,
    run in turn."""
    argv = [os.path.join(build, "bench_command"), str(runs)]
    for i, command in enumerate(commands):
        argv += (["--"] if i else []) + command
    subprocess.run(argv[:1] + ["3"] + argv[2:], check=True, capture_output=True)  # warm-up
    out = subprocess.run(argv, check=True, capture_output=True, text=True).stdout
    rows = []
    for line in out.splitlines():
        _, median, p90, rss, failures, cpu = line.split()
        rows.append((float(median), float(p90), int(rss), int(failures), float(cpu)))
    return rows


def shown_services(args, stdout):
    """How many services a listing's output holds."""
    if "--json" in args:
        try:
            return len(json.loads(stdout)["services"])
        except (ValueError, KeyError, TypeError):
            return -1
    return stdout.count("\nService:\t") + stdout.startswith("Service:\t")


def listed(tool, args, services):
    """None when the tool lists every service, else what went wrong."""
    run = subprocess.run([tool] + args, capture_output=True, text=True, timeout=30)
    if "-l" not in args:
        return None if run.returncode == 0 else "exit %d: %s" % (run.returncode,
                                                                 run.stderr.strip()[:80])
    shown = shown_services(args, run.stdout)
    if run.returncode == 0 and shown == services:
        return None
    return "listed %d of %d services, exit %d %s" % (shown, services, run.returncode,
                                                     run.stderr.strip()[:80])


def export_files(tool, folder):
    """The agent's services as a desired-state file, YAML and JSON: the
    realistic export-then-diff case, where --diff finds nothing to change."""
    files = {"EXPORT_YAML": os.path.join(folder, "export.yaml"),
             "EXPORT_JSON": os.path.join(folder, "export.json")}
    with open(files["EXPORT_YAML"], "w") as yaml_file:
        subprocess.run([tool, "--export"], check=True, stdout=yaml_file, timeout=30)
    state = json.loads(subprocess.run([tool, "--json", "--export"], check=True,
                                      capture_output=True, timeout=30).stdout)["state"]
    with open(files["EXPORT_JSON"], "w") as json_file:
        json.dump(state, json_file)
    return files


def diff_against_listing(tool, build, folder):
    """--diff of a file naming all DIFF_SERVICES services against -l of the
    same listing, run in turn: the rows of the "--diff against -l" table."""
    with Agent(build, DIFF_SERVICES):
        files = export_files(tool, folder)
        rows = side_by_side(build, DIFF_RUNS, [tool, "-l"],
                            [tool, "--diff", files["EXPORT_JSON"]],
                            [tool, "--diff", files["EXPORT_YAML"]])
    listing = rows[0]
    lines = ["| `-l` | %.2f | %.2f | 1.00 | - |" % (listing[0], listing[4])]
    for label, row in [("`--diff`, JSON file", rows[1]), ("`--diff`, YAML file", rows[2])]:
        ratio = row[0] / listing[0]
        lines.append("| %s | %.2f | %.2f | **%.2f** (CPU %.2f) | %s |" % (
            label, row[0], row[4], ratio, row[4] / listing[4], verdict(ratio, DIFF_TARGET)))
    return lines


def machine():
    model = "unknown"
    with open("/proc/cpuinfo") as f:
        for line in f:
            if line.startswith("model name"):
                model = line.split(":", 1)[1].strip()
                break
    load = open("/proc/loadavg").read().split()[0]
    return "%d cores (nproc), %s, Linux %s; load average %s at the start" % (
        os.cpu_count(), model, platform.release(), load)


def commit():
    def git(*args):
        return subprocess.run(["git", "-C", ROOT] + list(args), capture_output=True,
                              text=True).stdout.strip()
    head = git("log", "-1", "--format=%h %s")
    dirty = git("status", "--porcelain", "--untracked-files=no")
    return head + (" (with uncommitted changes)" if dirty else "") if head else "unknown"


def micro(binary):
    out = subprocess.run([binary, "--benchmark_format=json", "--benchmark_min_time=0.3"],
                         check=True, capture_output=True, text=True)
    rows = []
    for b in json.loads(out.stdout)["benchmarks"]:
        unit = b.get("time_unit", "ns")
        extra = ""
        if "bytes_per_second" in b:
            extra = "%.0f MB/s" % (b["bytes_per_second"] / 1e6)
        elif "items_per_second" in b:
            extra = "%.0f k items/s" % (b["items_per_second"] / 1e3)
        rows.append("| %s | %.3g %s | %.3g %s | %s |" % (b["name"], b["real_time"], unit,
                                                       b["cpu_time"], unit, extra))
    return rows


def verdict(value, limit):
    if limit is None:
        return "-"
    return "%s (target %s)" % ("met" if value <= limit else "**missed**", limit)


def measure(tool, build):
    """Headline rows, detail rows and the per-service costs of the listings."""
    raw = os.path.join(build, "raw_client")
    raw_static = os.path.join(build, "raw_client_static")
    headline, detail, per_service = [], [], []
    folder = tempfile.mkdtemp()
    for label, args, command, services, runs, target, rss_target in CASES:
        with Agent(build, services):
            if any(a.startswith("EXPORT_") for a in args):
                files = export_files(tool, folder)
                args = [files.get(a, a) for a in args]
            problem = listed(tool, args, services)
            if problem:
                headline.append("| %s | not measured: %s | | | | | | |" % (label, problem))
                continue
            t, r, s = side_by_side(build, runs, [tool] + args, [raw, command],
                                   [raw_static, command])
        ratio = t[0] / s[0]
        headline.append("| %s | **%.2f** | %s | %.2f | %.1f | %s | %.1f | %.2f |" % (
            label, ratio, verdict(ratio, target), t[4] / s[4], t[2] / MIB,
            verdict(t[2] / MIB, rss_target) if rss_target else "-", s[2] / MIB, t[0] / r[0]))
        detail.append("| %s | %d | %.2f | %.2f | %.2f | %.2f | %.2f | %.2f | %d | %d | %.2f | %d |"
                      % (label, runs, t[0], t[1], s[0], s[1], t[4], s[4], t[2], s[2], r[0],
                         t[3] + r[3] + s[3]))
        if services >= 1000 and args == ["-l"]:
            per_service.append((services, (t[0] - s[0]) / services * 1000, t[2]))
    return headline, detail, per_service


def main(argv):
    tool, build = argv[1], argv[2]
    headline, detail, per_service = measure(tool, build)
    lines = ["# Benchmark results", "",
             "Produced by `make bench` (bench/run.sh); every figure below is measured by it.", "",
             "- Commit: " + commit(),
             "- Machine: " + machine(),
             "- Agent: bench/native_agent, answering every request at once with a pre-built "
             "answer; the raw client connects, upgrades, sends the same two frames and reads "
             "the same answer without decoding it. The headline compares the tool with that "
             "client linked fully static (bench/raw_client_static), as the tool is: the "
             "same exchange with nothing decoded and nothing loaded. The last column is the "
             "same client loading libc dynamically (bench/raw_client), as a client written "
             "in C would.",
             "- Method: tool, raw client and static raw client run in turn (A B C A B C) "
             "against the same agent; ratio = tool median / static raw median of wall "
             "times. The CPU ratio (user + system time, medians) is context: the machine's "
             "load moves it far less than wall times.", "",
             "## Headline: the tool against the static raw client", "",
             "| Command | ratio of medians | time | CPU ratio | tool peak RSS MiB | memory "
             "| static raw peak RSS MiB | ratio to the raw client (libc loaded) |",
             "|---|---|---|---|---|---|---|---|"] + headline + [""]
    if per_service:
        lines += ["Cost of listing, the tool's time minus the static raw client's, per 1,000 "
                  "services "
                  "(constant when the cost grows linearly):", "",
                  "| Services | ms per 1,000 services | tool peak RSS MiB |", "|---|---|---|"]
        lines += ["| %d | %.2f | %.1f |" % (n, cost, rss / MIB) for n, cost, rss in per_service]
        lines += [""]
    lines += ["## `--diff` against `-l`", "",
              "A file naming all %d services the agent lists (an export), diffed against "
              "the same listing: nothing to change. `-l`, then `--diff` of the JSON and the "
              "YAML file, in turn (%d runs each); the target is at most %.0f times `-l`."
              % (DIFF_SERVICES, DIFF_RUNS, DIFF_TARGET), "",
              "| Command | median ms | CPU median ms | ratio to `-l` | target |",
              "|---|---|---|---|---|"] + diff_against_listing(tool, build, tempfile.mkdtemp())
    lines += [""]
    lines += ["## Absolute times (ms)", "",
              "CPU is user + system time of the process (wait4); the raw clients' includes "
              "the kernel's loopback delivery of what it sends.", "",
              "| Command | runs each | tool median | tool p90 | static raw median "
              "| static raw p90 | tool CPU median | static raw CPU median | tool peak RSS KiB "
              "| static raw peak RSS KiB | raw (libc loaded) median | failed runs |",
              "|---|---|---|---|---|---|---|---|---|---|---|---|"] + detail + [""]
    true_, usage = side_by_side(build, STARTUP_RUNS, ["/bin/true"], [tool, "-h"])
    lines += ["## Process start-up (%d runs each, in turn, no connection)" % STARTUP_RUNS, "",
              "`-h` prints the usage and exits: the difference from `/bin/true` is loading "
              "the binary and its libraries, relocations and static initialisers.", "",
              "| Command | median ms | p90 ms | peak RSS KiB |", "|---|---|---|---|",
              "| /bin/true | %.2f | %.2f | %d |" % true_[:3],
              "| sylvane-service -h | %.2f | %.2f | %d |" % usage[:3], ""]
    lines += ["## Micro-benchmarks (Google Benchmark)", "",
              "| Benchmark | wall | CPU | throughput |", "|---|---|---|---|"]
    lines += micro(os.path.join(build, "micro_bench")) + [""]
    text = "\n".join(lines)
    print(text)
    with open(os.path.join(HERE, "RESULTS.md"), "w") as f:
        f.write(text)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
