#!/usr/bin/env python3
"""Draws the benchmark charts of docs/performance.md from one run.

    plot.py SAMPLES SUMMARY_JSON OUT_DIR

SAMPLES is the sample log velacam_bench writes when VELACAM_BENCH_SAMPLES
names it (one line per repetition and side: LABEL<TAB>SIDE<TAB>NS NS ...);
SUMMARY_JSON is what summarize.py wrote. Draws into OUT_DIR:

- roundtrip_latency.png: the distribution (cumulative) of single 64-byte
  round trips without descriptors, free and pinned: the library, the
  per-record floor, the batched floor and ZeroMQ ipc://;
- queue_throughput.png: ns per message of MessageLoop against the plain
  queue, 1 and 4 producers.

Needs matplotlib (Debian: python3-matplotlib; run with /usr/bin/python3).
"""

import json
import os
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402 (the backend is chosen first)

# (label in the sample log, side) -> curve name, per pinning mode.
CURVES = (
    ("round trip 64 B", "ours", "library"),
    ("round trip 64 B", "reference", "floor, sendmsg/recvmsg per record"),
    ("round trip 64 B", "batched", "floor, one sendmmsg/recvmmsg per message"),
    ("ZeroMQ 64 B", "reference", "ZeroMQ ipc:// REQ/REP"),
)
MODES = (("free", 0), ("pinned to one CPU", 1))


def read_samples(path):
    samples = {}
    if not os.path.exists(path):
        return samples
    with open(path) as handle:
        for line in handle:
            parts = line.rstrip("\n").split("\t")
            if len(parts) != 3:
                continue
            label, side, values = parts
            samples.setdefault((label, side), []).extend(int(v) for v in values.split())
    return samples


def percentile(ordered, share):
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))]


def plot_latency(samples, out):
    if not samples:
        print("no round-trip samples: roundtrip_latency.png not drawn", file=sys.stderr)
        return
    figure, axes = plt.subplots(1, 2, figsize=(12, 4.8), sharey=True)
    for axis, (title, pinned) in zip(axes, MODES):
        for label, side, name in CURVES:
            values = sorted(samples.get((f"{label}/pinned:{pinned}", side), []))
            if not values:
                continue
            micros = [v / 1000.0 for v in values]
            # The slowest 0.1 % (preemptions by a neighbour) would stretch the
            # axis without showing anything about the path.
            shown = micros[: max(1, int(len(micros) * 0.999))]
            shares = [(i + 1) / len(micros) for i in range(len(shown))]
            axis.step(shown, shares, where="post",
                      label=f"{name}: median {percentile(micros, 0.5):.1f} µs, "
                            f"p99 {percentile(micros, 0.99):.1f} µs")
        axis.set_xscale("log")
        axis.set_title(f"64 B round trip, no descriptors ({title})")
        axis.set_xlabel("round-trip time (µs, log scale)")
        axis.grid(True, which="both", alpha=0.3)
        axis.legend(fontsize=7, loc="lower right")
    axes[0].set_ylabel("share of round trips at most this long")
    figure.tight_layout()
    figure.savefig(os.path.join(out, "roundtrip_latency.png"), dpi=110)
    plt.close(figure)


def plot_queue(summary, out):
    rows = [line for line in summary["comparisons"]
            if line["name"].startswith("queue") and "skipped" not in line]
    if not rows:
        print("queue comparison did not run: queue_throughput.png not drawn", file=sys.stderr)
        return
    figure, axis = plt.subplots(figsize=(7, 4.2))
    width = 0.38
    positions = range(len(rows))
    ours = [line["ours_ns"] for line in rows]
    plain = [line["reference_ns"] for line in rows]
    axis.bar([p - width / 2 for p in positions], ours, width, label="MessageLoop")
    axis.bar([p + width / 2 for p in positions], plain, width,
             label="plain mutex + condition variable + deque")
    for p, line in zip(positions, rows):
        top = max(line["ours_ns"], line["reference_ns"])
        axis.annotate(f"MessageLoop / plain: {line['ratio']:.2f}", (p, top),
                      textcoords="offset points", xytext=(0, 4), ha="center", fontsize=8)
    axis.set_xticks(list(positions))
    axis.set_xticklabels([line["name"].split(", ")[-1] for line in rows])
    axis.set_ylabel("ns per message (median batch)")
    axis.set_title("Queue: one consumer thread, producers enqueueing")
    axis.set_ylim(0, max(ours + plain) * 1.2)
    axis.legend(fontsize=8)
    axis.grid(True, axis="y", alpha=0.3)
    figure.tight_layout()
    figure.savefig(os.path.join(out, "queue_throughput.png"), dpi=110)
    plt.close(figure)


def main(argv):
    if len(argv) != 4:
        print(__doc__.strip().splitlines()[2].strip(), file=sys.stderr)
        return 2
    with open(argv[2]) as handle:
        summary = json.load(handle)
    plot_latency(read_samples(argv[1]), argv[3])
    plot_queue(summary, argv[3])
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
