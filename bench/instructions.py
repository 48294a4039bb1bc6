#!/usr/bin/env python3
"""Instructions per 64-byte round trip, from callgrind profiles of one
velacam_bench run (Library_vs_OneSendFloor, pinned).

Wall-clock figures on a shared virtual machine move by several per cent from
run to run; instruction counts move by a few per cent at most (the
server's, with how often its loop goes round). Each side is counted on its own:

  client  the inclusive instructions of the channel's round-trip function
          over its calls (the library: LibraryChannel::roundTrip; the floors:
          raw::roundTrip, raw::roundTripBatched), so the benchmark's own
          timing is left out;
  server  the inclusive instructions of the serving loop (DefaultReactor::loop,
          raw::serveEcho, raw::serveEchoBatched) over the round trips its
          client made.

System calls count as the instructions of their user-space wrappers only:
what the kernel does is not in these figures.

usage: instructions.py CALLGRIND_OUT_FILE...
"""

import re
import subprocess
import sys

# (name, client function, server function); matched against demangled names.
CHANNELS = (
    ("library", r"LibraryChannel::roundTrip\(\)", r"Kestrel::ipc::DefaultReactor::loop\("),
    ("floor, one sendmmsg and a recvmsg per record", r"velacam::bench::raw::roundTrip\(",
     r"velacam::bench::raw::serveEcho\("),
    ("floor, one sendmmsg and one recvmmsg", r"velacam::bench::raw::roundTripBatched\(",
     r"velacam::bench::raw::serveEchoBatched\("),
)


def inclusive_costs(path):
    """function name -> inclusive instructions."""
    out = subprocess.run(["callgrind_annotate", "--inclusive=yes", "--threshold=100", path],
                         capture_output=True, text=True, check=True).stdout
    costs = {}
    for line in out.splitlines():
        match = re.match(r"\s*([\d,]+) \([^)]*\)\s+(?:\S*?:)?(.*?)(?: \[.*\])?$", line)
        if match:
            costs[match.group(2)] = int(match.group(1).replace(",", ""))
    return costs


def call_counts(path):
    """function name -> calls made to it, from the profile's call records."""
    names, counts = {}, {}
    callee = None
    with open(path, encoding="utf-8", errors="replace") as profile:
        for line in profile:
            match = re.match(r"c?fn=\((\d+)\)(?: (.*))?$", line.rstrip("\n"))
            if match:
                if match.group(2):
                    names[match.group(1)] = match.group(2)
                callee = match.group(1) if line.startswith("cfn=") else None
                continue
            if line.startswith("calls=") and callee is not None:
                name = names.get(callee, callee)
                counts[name] = counts.get(name, 0) + int(line.split()[0][len("calls="):])
                callee = None
    return counts


def find(table, pattern):
    return sum(value for name, value in table.items() if re.search(pattern, name))


def main(paths):
    costs = [inclusive_costs(path) for path in paths]
    calls = [call_counts(path) for path in paths]
    print(f"{'instructions per round trip':48} {'client':>8} {'server':>8} {'both':>8} "
          f"{'round trips':>12}")
    for name, client_fn, server_fn in CHANNELS:
        round_trips = max(find(c, client_fn) for c in calls)
        client = max(find(c, client_fn) for c in costs)
        server = max(find(c, server_fn) for c in costs)
        if round_trips == 0:
            print(f"{name:48} {'-':>8} {'-':>8} {'-':>8}")
            continue
        c, s = client / round_trips, server / round_trips
        print(f"{name:48} {c:8.0f} {s:8.0f} {c + s:8.0f} {round_trips:12}")


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    main(sys.argv[1:])
