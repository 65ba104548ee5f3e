#!/usr/bin/env python3
"""Prints the link order of cli/hot_symbols.txt from valgrind lackey traces.

    hot_symbols.py TOOL TRACE...

Each TRACE is `valgrind --tool=lackey --trace-mem=yes` of one call of TOOL,
the first one the call that matters most. The order: the functions the first
call runs, in the order it first runs them; the start-up functions that only
run outside valgrind (it gives the process no vDSO); the string functions of
every instruction set, grouped by set, since the machine picks one set; the
IFUNC resolvers; the functions only the other calls run. Then the data the
calls touch, in first-touch order, leaving out objects larger than a page:
the small ones then share a few pages instead of each sitting between large
ones.
"""
import bisect
import re
import subprocess
import sys

# Run by glibc's start-up when the kernel maps a vDSO, which valgrind does not.
VDSO_SETUP = ["_dl_new_object", "_dl_add_to_namespace_list", "_dl_setup_hash",
              "_dl_lookup_symbol_x", "do_lookup_x", "check_match"]
STRING_VARIANT = re.compile(r"^(__[a-z0-9]+)_(sse2|sse4|ssse3|avx512|avx2|avx|evex)")
# The sets a machine of today picks: AVX2, or EVEX and AVX-512 where it has
# them, each with its RTM form for CPUs with transactional memory.
PICKED = re.compile(r"_(avx2?|evex|avx512)(_unaligned(_erms)?|_no_vzeroupper|_movbe)?(_rtm)?$")
PAGE = 4096


def isa_rank(name):
    """EVEX first (what most servers of today pick), then AVX2, then AVX-512:
    on a given machine the forms it uses then lie together."""
    set_name = STRING_VARIANT.match(name).group(2)
    return {"evex": 0, "avx2": 1, "avx": 1}.get(set_name, 2)


def symbols(tool):
    """(address, size, kind, name) of every function and object, by address,
    kind "code" or "data". Thread-local ones are left out: their values are
    offsets, not addresses. A symbol without a size (crtbegin's, for one)
    reaches to the next one."""
    out = subprocess.run(["readelf", "-sW", tool], check=True,
                         capture_output=True, text=True).stdout
    entry = re.compile(r"^\s*\d+:\s+([0-9a-f]+)\s+(\S+)\s+(FUNC|OBJECT|<OS specific>: 10)\s"
                       r"+\S+\s+\S+\s+(\d+)\s+(\S+)$")
    rows = []
    for line in out.splitlines():
        match = entry.match(line)
        if match:
            address, size, kind, _, name = match.groups()
            rows.append((int(address, 16), int(size, 0), "data" if kind == "OBJECT" else "code",
                         name))
    rows = sorted(set(rows))
    for i, (address, size, kind, name) in enumerate(rows):
        if size == 0 and i + 1 < len(rows):
            rows[i] = (address, rows[i + 1][0] - address, kind, name)
    return [row for row in rows if row[1] > 0]


def touched(trace, table, starts, entry):
    """Text and data symbols the trace touches, each in first-touch order."""
    code, data, base = {}, {}, None
    with open(trace) as lines:
        for line in lines:
            kind = line[:2]
            if kind not in ("I ", " L", " S", " M"):
                continue
            address = int(line[3:].split(",")[0], 16)
            if base is None:
                if kind != "I ":
                    continue
                base = address - entry  # the first instruction is _start
            address -= base
            at = bisect.bisect_right(starts, address) - 1
            if at < 0 or address >= table[at][0] + table[at][1]:
                continue
            _, _, kind_of, name = table[at]
            if kind == "I " and kind_of == "code":
                code.setdefault(name, None)
            elif kind != "I " and kind_of == "data":
                data.setdefault(table[at], None)
    return list(code), list(data)


def main(tool, traces):
    table = symbols(tool)
    starts = [row[0] for row in table]
    names = {row[3] for row in table}
    entry = next(row[0] for row in table if row[3] == "_start")
    runs = [touched(trace, table, starts, entry) for trace in traces]

    def variants_of(name):
        base = STRING_VARIANT.match(name).group(1)
        return sorted(n for n in names if STRING_VARIANT.match(n) and PICKED.search(n)
                      and STRING_VARIANT.match(n).group(1) == base)

    order = ["_start"]
    order += [n for n in runs[0][0] if not STRING_VARIANT.match(n)]
    order += [n for n in VDSO_SETUP if n in names]
    variants = {v for code, _ in runs for name in code if STRING_VARIANT.match(name)
                for v in variants_of(name)}
    order += sorted(variants, key=lambda name: (isa_rank(name), name))
    order += sorted(row[3] for row in table if row[3].endswith("_ifunc"))
    for code, _ in runs[1:]:
        order += code
    for _, data in runs:
        order += [row[3] for row in data if row[1] <= PAGE]
    print("# Symbols one call touches, placed first by the static link (bench/hot_symbols.sh).")
    print("\n".join(dict.fromkeys(order)))


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2:])
