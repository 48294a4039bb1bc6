#!/usr/bin/env python3
"""Summarises a velacam_bench run (Google Benchmark's JSON output).

Prints a table, one row per comparison: the library ("ours"), its reference
and their ratio; for round trips also the batched floor and the ratio to it,
and the minor page faults per message of each side. Then the targets and
whether each is met. Writes the same, with every benchmark's median and
spread, to the summary JSON file.

References: the per-record floor (two sendmsg and two recvmsg per message
each way, bench/RawFloor.cpp) is "reference" of the round trips; the
batched floor (one sendmmsg and one recvmmsg per message,
bench/BatchedFloor.cpp) is "batched". One row takes as its reference the
floor that sends with one sendmmsg and reads a record at a time, the header
first (bench/RawFloor.cpp, SendCalls::kOne), two the batched floor
with the guards the library's receive path keeps by default
(bench/BatchedFloor.cpp, Guards::kLibraryDefaults), and two the library's
own round trip, against which RequestChannel's calls are measured. For the queue it is a plain
mutex + condition variable + deque queue; for the peer, ZeroMQ ipc://.

Medians are taken over the repetitions of each benchmark (the per-repetition
entries of the JSON), so a run with --benchmark_repetitions=N quotes the
median of N. The interleaved benchmarks (round trips, queues) carry each
side as counters (ours_ns, reference_ns, batched_ns), each already the
median of its single round trips or batches in that repetition, and the
page faults per message as ours_faults, reference_faults, batched_faults.
Ratios are ours / reference of times: below 1 is faster.

usage: summarize.py RESULTS_JSON SUMMARY_JSON
"""

import json
import statistics
import sys

ROUND_TRIP = "{kind}/payload:{payload}/fds:{fds}/idle:{idle}/pinned:{pinned}/real_time"
MODES = (("free", 0), ("pinned", 1))
SIDES = ("ours", "reference", "batched")


def round_trip(kind, pinned, payload=64, fds=0, idle=0):
    return ROUND_TRIP.format(kind=kind, payload=payload, fds=fds, idle=idle, pinned=pinned)


def size_name(payload):
    if payload >= 1024:
        return f"{payload // 1024} KiB"
    return f"{payload} B"


def comparisons():
    """(name, ours, reference, targets) for every line of the summary.

    ours and reference are benchmark names, or (benchmark, side) for the
    interleaved benchmarks, whose sides are counters of one benchmark.
    targets is a list of (kind, bound): "ratio<=" bounds the ratio to the
    reference, "batched<=" the ratio to the batched floor, "faults<=" the
    library's page faults per message, "ours<" ours in ns."""
    lines = []
    for mode, pinned in MODES:
        for payload in (64, 4096):
            for fds in (0, 1, 4, 16):
                targets = []
                if payload == 64 and fds in (0, 1):
                    targets = [("ratio<=", 0.95 if pinned else 1.00), ("batched<=", 1.05)]
                pair = round_trip("Library_vs_Floor", pinned, payload, fds)
                lines.append((f"round trip {size_name(payload)}, {fds} fds ({mode})",
                              (pair, "ours"), (pair, "reference"), targets))
        for payload, bound in ((65536, 1.25),):
            pair = round_trip("LargeMessage_vs_Floor", pinned, payload)
            lines.append((f"round trip {size_name(payload)}, 0 fds, data copied out once "
                          f"({mode})", (pair, "ours"), (pair, "reference"),
                          [("ratio<=", bound), ("faults<=", 0.05)]))
        for idle in (16, 256):
            pair = round_trip("Library_vs_Floor", pinned, idle=idle)
            targets = [("ratio<=", 1.10)] if idle == 256 else []
            lines.append((f"round trip 64 B, {idle} idle handlers, floors polling {idle} idle fds "
                          f"({mode})", (pair, "ours"), (pair, "reference"), targets))
        pair = round_trip("Library_vs_OneSendFloor", pinned)
        lines.append((f"round trip 64 B, 0 fds, reference: one sendmmsg, a recvmsg per record "
                      f"({mode})", (pair, "ours"), (pair, "reference"), []))
        for fds in (0, 1):
            pair = round_trip("Library_vs_GuardedFloor", pinned, fds=fds)
            lines.append((f"round trip 64 B, {fds} fds, reference: the batched floor with the "
                          f"library's guards ({mode})", (pair, "ours"), (pair, "reference"), []))
        for fds in (0, 1):
            pair = round_trip("RequestChannel_vs_Library", pinned, fds=fds)
            lines.append((f"RequestChannel call 64 B, {fds} fds, reference: the library's own "
                          f"round trip ({mode})", (pair, "ours"), (pair, "reference"),
                          [("ratio<=", 1.10)]))
        pair = round_trip("LibraryUnboundedWait_vs_Floor", pinned)
        lines.append((f"round trip 64 B, 0 fds, payload wait unbounded ({mode})", (pair, "ours"),
                      (pair, "reference"), []))
        pair = round_trip("LibraryHostLogging_vs_Floor", pinned)
        lines.append((f"round trip 64 B, 0 fds, default host logging ({mode})", (pair, "ours"),
                      (pair, "reference"), []))
        pair = round_trip("Library_vs_ZeroMQ", pinned)
        lines.append((f"round trip 64 B vs ZeroMQ ipc:// ({mode})", (pair, "ours"),
                      (pair, "reference"), [("ratio<=", 0.5)]))
    for producers in (1, 4):
        pair = f"MessageLoop_vs_PlainQueue/producers:{producers}/real_time"
        lines.append((f"queue, ns per message, {producers} producer{'s' if producers > 1 else ''}",
                      (pair, "ours"), (pair, "reference"), [("ratio<=", round(1 / 0.9, 3))]))
    lines.append(("suppressed debug log site", "LogSite_suppressedDebug",
                  "Reference_flagTest", [("ours<", 2.0)]))
    lines.append(("emitted error line into a ULogger", "LogSite_emittedError",
                  "Reference_snprintf", []))
    for fds in (2, 17, 257):
        lines.append((f"poller cycle, {fds} fds (clear, register each, poll)",
                      f"Poller_cycle/fds:{fds}", f"Reference_ppoll/fds:{fds}", []))
    for fds in (0, 1):
        lines.append((f"payload() copy, 64 B, {fds} fds",
                      f"Message_payload/payload:64/fds:{fds}",
                      f"Reference_copy/payload:64/fds:{fds}", []))
    return lines


TO_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}

# Single-threaded benchmarks that never block are timed by the thread's CPU
# clock, which a busy neighbour does not stretch. (Round trips and queues
# carry their own wall-clock medians as counters.)
CPU_CLOCKED = ("LogSite_", "Reference_", "Poller_", "Message_")


def per_run_ns(entry):
    """Nanoseconds per operation."""
    clock = "cpu_time" if entry["run_name"].startswith(CPU_CLOCKED) else "real_time"
    return entry[clock] * TO_NS[entry["time_unit"]]


def summarise(values):
    median = statistics.median(values)
    return {
        "median_ns": median,
        "repetitions": len(values),
        "min_ns": min(values),
        "max_ns": max(values),
        # Half the min-to-max range, as a share of the median.
        "spread": (max(values) - min(values)) / (2 * median) if median else 0.0,
    }


def medians(results):
    """Median over the repetitions of every figure: a benchmark's time per
    operation, or each side of an interleaved benchmark (run name + "#ours",
    "#reference", "#batched", already the median of its single round trips),
    with that side's page faults per message and the range of its ratio."""
    samples, faults, ratios = {}, {}, {}
    for entry in results["benchmarks"]:
        if entry.get("run_type") != "iteration" or entry.get("error_occurred"):
            continue
        name = entry["run_name"]
        if "ours_ns" not in entry:
            samples.setdefault(name, []).append(per_run_ns(entry))
            continue
        for side in SIDES:
            if f"{side}_ns" in entry:
                samples.setdefault(f"{name}#{side}", []).append(entry[f"{side}_ns"])
            if f"{side}_faults" in entry:
                faults.setdefault(f"{name}#{side}", []).append(entry[f"{side}_faults"])
        for side, counter in (("reference", "ratio"), ("batched", "ratio_batched")):
            if counter in entry:
                ratios.setdefault(f"{name}#{side}", []).append(entry[counter])
    table = {name: summarise(values) for name, values in samples.items()}
    for name, values in faults.items():
        table[name]["faults_per_message"] = statistics.median(values)
    # An interleaved benchmark's own ratio in each repetition: how far the
    # pairing kept the comparison steady while the times themselves moved.
    for name, values in ratios.items():
        table[name]["ratio_range"] = [min(values), max(values)]
    return table


def key(figure):
    """The medians-table key of a benchmark name or a (benchmark, side)."""
    return figure if isinstance(figure, str) else f"{figure[0]}#{figure[1]}"


def verdict(target, line):
    kind, bound = target
    if kind == "ratio<=":
        return line["ratio"] <= bound
    if kind == "batched<=":
        return "ratio_batched" in line and line["ratio_batched"] <= bound
    if kind == "faults<=":
        faults = line.get("faults_per_message", {})
        return "ours" in faults and faults["ours"] <= bound
    return line["ours_ns"] < bound


def describe(target):
    kind, bound = target
    return {"ratio<=": f"ratio <= {bound}", "batched<=": f"ratio to batched floor <= {bound}",
            "faults<=": f"faults per message <= {bound}", "ours<": f"ours < {bound} ns"}[kind]


def compare(table, name, ours_key, ref_key, targets):
    """One line of the summary, or a "skipped" line."""
    ours_name, ref_name = key(ours_key), key(ref_key)
    ours, ref = table.get(ours_name), table.get(ref_name)
    if ours is None or ref is None:
        return {"name": name, "skipped": ours_name if ours is None else ref_name}
    line = {"name": name, "ours": ours_name, "reference": ref_name,
            "ours_ns": ours["median_ns"], "reference_ns": ref["median_ns"],
            "ratio": ours["median_ns"] / ref["median_ns"],
            "ours_spread": ours["spread"], "reference_spread": ref["spread"]}
    if "ratio_range" in ref:
        line["ratio_range_over_repetitions"] = ref["ratio_range"]
    if isinstance(ours_key, tuple):
        batched = table.get(f"{ours_key[0]}#batched")
        if batched is not None:
            line["batched_ns"] = batched["median_ns"]
            line["ratio_batched"] = ours["median_ns"] / batched["median_ns"]
            line["ratio_batched_range_over_repetitions"] = batched.get("ratio_range")
        faults = {side: table[f"{ours_key[0]}#{side}"]["faults_per_message"]
                  for side in SIDES
                  if "faults_per_message" in table.get(f"{ours_key[0]}#{side}", {})}
        if faults:
            line["faults_per_message"] = faults
    if targets:
        line["targets"] = [{"target": describe(target), "met": verdict(target, line)}
                           for target in targets]
        line["met"] = all(target["met"] for target in line["targets"])
    return line


def fmt_ns(ns):
    if ns >= 1e6:
        return f"{ns / 1e6:.2f} ms"
    if ns >= 1e4:
        return f"{ns / 1e3:.1f} us"
    return f"{ns:.1f} ns"


def fmt_faults(value):
    return "-" if value is None else f"{value:.3f}"


def print_table(lines):
    header = ("comparison", "ours", "reference", "ratio", "batched floor", "ratio",
              "faults per message: ours ref batched")
    rows = []
    for line in lines:
        if "skipped" in line:
            rows.append((line["name"], "skipped", "", "", "", "", ""))
            continue
        faults = line.get("faults_per_message", {})
        rows.append((line["name"], fmt_ns(line["ours_ns"]), fmt_ns(line["reference_ns"]),
                     f"{line['ratio']:.3f}",
                     fmt_ns(line["batched_ns"]) if "batched_ns" in line else "",
                     f"{line['ratio_batched']:.3f}" if "ratio_batched" in line else "",
                     " ".join(fmt_faults(faults.get(side)) for side in SIDES) if faults else ""))
    widths = [max(len(row[i]) for row in rows + [header]) for i in range(len(header))]
    for row in [header] + rows:
        cells = [row[0].ljust(widths[0])] + [cell.rjust(width)
                                             for cell, width in zip(row[1:], widths[1:])]
        print("  ".join(cells).rstrip())


def main(argv):
    if len(argv) != 3:
        print(__doc__.strip().splitlines()[-1], file=sys.stderr)
        return 2
    with open(argv[1]) as handle:
        results = json.load(handle)
    table = medians(results)
    lines = [compare(table, *comparison) for comparison in comparisons()]
    print_table(lines)
    targeted = [line for line in lines if "targets" in line]
    if targeted:
        print("\ntargets:")
        for line in targeted:
            for target in line["targets"]:
                print(f"  {line['name']}: {target['target']}: "
                      f"{'met' if target['met'] else 'MISSED'}")
    summary = {"context": results.get("context", {}), "comparisons": lines, "medians": table}
    with open(argv[2], "w") as handle:
        json.dump(summary, handle, indent=2)
        handle.write("\n")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
