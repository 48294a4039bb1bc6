#!/usr/bin/env python3
"""Summarises a velacam_bench run (Google Benchmark's JSON output).

Prints one line per comparison,
    name: ours X ns, reference Y ns, ratio R
then the targets and whether each is met, and writes the same, with every
benchmark's median and spread, to the summary JSON file.

Medians are taken over the repetitions of each benchmark (the per-repetition
entries of the JSON), so a run with --benchmark_repetitions=N quotes the
median of N. The paired benchmarks (round trips, queues) carry both sides as
counters, ours_ns and reference_ns, each already the median of its single
round trips or batches in that repetition. Ratios are ours / reference of
times: below 1 is faster.

usage: summarize.py RESULTS_JSON SUMMARY_JSON
"""

import json
import statistics
import sys

ROUND_TRIP = "{kind}/payload:{payload}/fds:{fds}/idle:{idle}/pinned:{pinned}/real_time"
MODES = (("free", 0), ("pinned", 1))


def round_trip(kind, pinned, payload=64, fds=0, idle=0):
    return ROUND_TRIP.format(kind=kind, payload=payload, fds=fds, idle=idle, pinned=pinned)


def comparisons():
    """(name, ours, reference, target) for every line of the summary.

    ours and reference are benchmark names, or (benchmark, side) for the
    paired round trips, whose two sides are counters of one benchmark. A
    target is (kind, bound): "ratio<=" bounds the ratio, "ours<" bounds ours
    in ns."""
    lines = []
    for mode, pinned in MODES:
        for payload in (64, 4096):
            for fds in (0, 1, 4, 16):
                target = ("ratio<=", 1.15) if payload == 64 and fds in (0, 1) else None
                size = "64 B" if payload == 64 else "4 KiB"
                pair = round_trip("Library_vs_Floor", pinned, payload, fds)
                lines.append((f"round trip {size}, {fds} fds ({mode})", (pair, "ours"),
                              (pair, "reference"), target))
        for idle in (16, 256):
            pair = round_trip("Library_vs_Floor", pinned, idle=idle)
            lines.append((f"round trip 64 B, {idle} idle handlers, floor polling {idle} idle fds "
                          f"({mode})", (pair, "ours"), (pair, "reference"), None))
        pair = round_trip("LibraryHostLogging_vs_Floor", pinned)
        lines.append((f"round trip 64 B, 0 fds, default host logging ({mode})", (pair, "ours"),
                      (pair, "reference"), None))
        pair = round_trip("Library_vs_ZeroMQ", pinned)
        lines.append((f"round trip 64 B vs ZeroMQ ipc:// ({mode})", (pair, "ours"),
                      (pair, "reference"), ("ratio<", 1.0)))
    for producers in (1, 4):
        target = ("ratio<=", round(1 / 0.7, 3)) if producers == 1 else None
        pair = f"MessageLoop_vs_PlainQueue/producers:{producers}/real_time"
        lines.append((f"queue, ns per message, {producers} producer{'s' if producers > 1 else ''}",
                      (pair, "ours"), (pair, "reference"), target))
    lines.append(("suppressed debug log site", "LogSite_suppressedDebug",
                  "Reference_flagTest", ("ours<", 2.0)))
    lines.append(("emitted error line into a ULogger", "LogSite_emittedError",
                  "Reference_snprintf", None))
    for fds in (2, 17, 257):
        lines.append((f"poller cycle, {fds} fds (clear, register each, poll)",
                      f"Poller_cycle/fds:{fds}", f"Reference_ppoll/fds:{fds}", None))
    for fds in (0, 1):
        lines.append((f"payload copy taken by send, 64 B, {fds} fds",
                      f"Message_payload/payload:64/fds:{fds}",
                      f"Reference_copy/payload:64/fds:{fds}", None))
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


def medians(results):
    """Median over the repetitions of every figure: a benchmark's time per
    operation, or each side of a paired round trip (run name + "#ours" /
    "#reference", already the median of its single round trips)."""
    samples = {}
    ratios = {}
    for entry in results["benchmarks"]:
        if entry.get("run_type") != "iteration" or entry.get("error_occurred"):
            continue
        name = entry["run_name"]
        if "ours_ns" in entry:
            samples.setdefault(name + "#ours", []).append(entry["ours_ns"])
            samples.setdefault(name + "#reference", []).append(entry["reference_ns"])
            ratios.setdefault(name, []).append(entry["ratio"])
        else:
            samples.setdefault(name, []).append(per_run_ns(entry))
    table = {}
    for name, values in samples.items():
        median = statistics.median(values)
        table[name] = {
            "median_ns": median,
            "repetitions": len(values),
            "min_ns": min(values),
            "max_ns": max(values),
            # Half the min-to-max range, as a share of the median.
            "spread": (max(values) - min(values)) / (2 * median) if median else 0.0,
        }
    # A paired benchmark's own ratio in each repetition: how far the pairing
    # kept the comparison steady while the times themselves moved.
    for name, values in ratios.items():
        for side in ("#ours", "#reference"):
            table[name + side]["ratio_range"] = [min(values), max(values)]
    return table


def key(figure):
    """The medians-table key of a benchmark name or a (benchmark, side)."""
    return figure if isinstance(figure, str) else f"{figure[0]}#{figure[1]}"


def verdict(target, ours, ratio):
    kind, bound = target
    if kind == "ratio<=":
        return ratio <= bound
    if kind == "ratio<":
        return ratio < bound
    return ours < bound


def describe(target):
    kind, bound = target
    return {"ratio<=": f"ratio <= {bound}", "ratio<": f"ratio < {bound}",
            "ours<": f"ours < {bound} ns"}[kind]


def main(argv):
    if len(argv) != 3:
        print(__doc__.strip().splitlines()[-1], file=sys.stderr)
        return 2
    with open(argv[1]) as handle:
        results = json.load(handle)
    table = medians(results)
    summary = {"context": results.get("context", {}), "comparisons": [], "medians": table}
    targets = []
    for name, ours_key, ref_key, target in comparisons():
        ours_name, ref_name = key(ours_key), key(ref_key)
        ours, ref = table.get(ours_name), table.get(ref_name)
        if ours is None or ref is None:
            missing = ours_name if ours is None else ref_name
            print(f"{name}: skipped ({missing} did not run)")
            summary["comparisons"].append({"name": name, "skipped": missing})
            continue
        ratio = ours["median_ns"] / ref["median_ns"]
        print(f"{name}: ours {ours['median_ns']:.1f} ns, reference {ref['median_ns']:.1f} ns, "
              f"ratio {ratio:.3f}")
        line = {"name": name, "ours": ours_name, "reference": ref_name,
                "ours_ns": ours["median_ns"], "reference_ns": ref["median_ns"], "ratio": ratio,
                "ours_spread": ours["spread"], "reference_spread": ref["spread"]}
        if "ratio_range" in ours:
            line["ratio_range_over_repetitions"] = ours["ratio_range"]
        if target is not None:
            line["target"] = describe(target)
            line["met"] = verdict(target, ours["median_ns"], ratio)
            targets.append(line)
        summary["comparisons"].append(line)
    if targets:
        print("\ntargets:")
        for line in targets:
            print(f"  {line['name']}: {line['target']}: {'met' if line['met'] else 'MISSED'}")
    with open(argv[2], "w") as handle:
        json.dump(summary, handle, indent=2)
        handle.write("\n")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
