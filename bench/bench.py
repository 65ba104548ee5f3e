#!/usr/bin/env python3
"""Runs the benchmarks and writes RESULTS.md: bench.py TOOL BENCH_BUILD_DIR.

Latency and scale are measured against the Transfer Agent simulator on
127.0.0.1:11038 (run this in a private network namespace, as run.sh does),
comparing the tool with bench/raw_client doing the same exchange. Wall times
and peak memory come from bench_command (wait4), the rest from Google
Benchmark.
"""

import json
import os
import platform
import shutil
import subprocess
import sys
import tempfile
import uuid

HERE = os.path.dirname(os.path.realpath(__file__))
SIMULATOR = os.path.join(HERE, "..", "tools", "agent", "sylvane-agent-sim")
LATENCY_RUNS = 200
SCALE_RUNS = 20
STARTUP_RUNS = 300


def service(i):
    return {"tenant_name": "service%d" % i, "status": "connected",
            "ip_address": "10.%d.%d.%d" % (i >> 16 & 255, i >> 8 & 255, i & 255),
            "port": 8080, "virtual_port": 80, "uuid": str(uuid.UUID(int=i)),
            "onion_address": "%056d.onion" % i, "api_key": "k" * 76, "clear_services": []}


class Simulator:
    def __init__(self, folder, services):
        state = os.path.join(folder, "state%d.json" % services)
        with open(state, "w") as f:
            json.dump({"services": [service(i) for i in range(services)]}, f)
        self.process = subprocess.Popen([sys.executable, SIMULATOR, "--quiet", "--state", state],
                                        stdout=subprocess.PIPE)
        self.process.stdout.readline()  # listening

    def close(self):
        self.process.terminate()
        self.process.wait()


def timed(runner, runs, argv):
    """(median ms, p90 ms, peak KiB, failures) of `runs` runs of argv."""
    subprocess.run([runner, "5"] + argv, check=True, capture_output=True)  # warm-up
    out = subprocess.run([runner, str(runs)] + argv, check=True, capture_output=True, text=True)
    _, median, p90, rss, failures = out.stdout.split()
    return float(median), float(p90), int(rss), int(failures)


def machine():
    model = "unknown"
    with open("/proc/cpuinfo") as f:
        for line in f:
            if line.startswith("model name"):
                model = line.split(":", 1)[1].strip()
                break
    return "%d cores (nproc), %s, Linux %s" % (os.cpu_count(), model, platform.release())


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


def main(argv):
    tool, build = argv[1], argv[2]
    runner = os.path.join(build, "bench_command")
    raw = os.path.join(build, "raw_client")
    lines = ["# Benchmark results", "", "Machine: " + machine(), "",
             "Produced by `make bench` (bench/run.sh); every figure below is measured by it.", ""]
    folder = tempfile.mkdtemp()
    try:
        sim = Simulator(folder, 3)
        try:
            rows = []
            for label, args, command in (("-l (3 services)", ["-l"], "get_tenants"),
                                         ("-g", ["-g"], "get_proxy")):
                t = timed(runner, LATENCY_RUNS, [tool] + args)
                r = timed(runner, LATENCY_RUNS, [raw, command])
                rows.append("| %s | %.2f | %.2f | %.2f | %.2f | %.2f | %d | %d |" % (
                    label, t[0], t[1], r[0], r[1], t[0] / r[0], t[2], t[3] + r[3]))
        finally:
            sim.close()
        lines += ["## Command latency (%d runs each, against the simulator)" % LATENCY_RUNS, "",
                  "| Command | tool median ms | tool p90 ms | raw median ms | raw p90 ms "
                  "| ratio (median) | tool peak RSS KiB | failed runs |",
                  "|---|---|---|---|---|---|---|---|"] + rows + [""]
        rows = []
        for count in (1000, 10000):
            sim = Simulator(folder, count)
            try:
                t = timed(runner, SCALE_RUNS, [tool, "-l"])
                r = timed(runner, SCALE_RUNS, [raw, "get_tenants"])
            finally:
                sim.close()
            rows.append("| %d | %.1f | %.1f | %.1f | %.1f | %d | %d |" % (
                count, t[0], t[1], r[0], t[0] - r[0], t[2], t[3] + r[3]))
        lines += ["## Listing at scale (`-l`, %d runs each)" % SCALE_RUNS, "",
                  "The raw client's time is the simulator producing and sending the list; "
                  "the difference is the tool's own work (decoding and printing).", "",
                  "| Services | tool median ms | tool p90 ms | raw median ms "
                  "| tool minus raw ms | tool peak RSS KiB | failed runs |",
                  "|---|---|---|---|---|---|---|"] + rows + [""]
    finally:
        shutil.rmtree(folder)
    rows = []
    for label, argv_ in (("/bin/true", ["/bin/true"]), ("sylvane-service -h", [tool, "-h"])):
        t = timed(runner, STARTUP_RUNS, argv_)
        rows.append("| %s | %.2f | %.2f | %d |" % (label, t[0], t[1], t[2]))
    lines += ["## Process start-up (%d runs each, no connection)" % STARTUP_RUNS, "",
              "`-h` prints the usage and exits: the difference from `/bin/true` is loading "
              "libstdc++ and libevent, relocations and static initialisers.", "",
              "| Command | median ms | p90 ms | peak RSS KiB |", "|---|---|---|---|"]
    lines += rows + [""]
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
