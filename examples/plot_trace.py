#!/usr/bin/env python3
"""Draws one round trip of a demo trace as a timeline (docs/trace_round_trip.png).

    plot_trace.py TRACE_JSON OUT_PNG [REQUEST_ID]

TRACE_JSON is what `scripts/demo --trace FILE` wrote. The round trip of
request REQUEST_ID (default: the one whose round trip is the median) is drawn
with one lane per thread that took part: its slices (send, handleEvent,
receive, dispatch, reply to call or reply callback) and the flows that link a message's send to
its receive and its dispatch, reply to call or reply callback in the other
process.

Needs matplotlib (Debian: python3-matplotlib; run with /usr/bin/python3).
"""

import json
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.lines  # noqa: E402 (the backend is chosen first)
import matplotlib.patches  # noqa: E402
import matplotlib.pyplot as plt  # noqa: E402

COLOURS = {"send": "#1f77b4", "handleEvent": "#c7c7c7", "receive": "#2ca02c",
           "dispatch": "#ff7f0e", "reply to call": "#9467bd", "reply callback": "#8c564b"}
ENDS = ("reply to call", "reply callback")  # where a reply's flow ends


def main(path, out, wanted):
    events = json.load(open(path))
    processes = {e["pid"]: e["args"]["name"] for e in events
                 if e.get("ph") == "M" and e["name"] == "process_name"}
    slices = [e for e in events if e.get("ph") == "X"]
    sends = {e["args"]["id"]: e for e in slices
             if e["name"] == "send" and not e["args"]["reply"]}
    callbacks = {e["args"]["id"]: e for e in slices if e["name"] in ENDS}
    trips = sorted((callbacks[i]["ts"] + callbacks[i]["dur"] - sends[i]["ts"], i)
                   for i in sends if i in callbacks)
    if wanted is None:
        wanted = trips[len(trips) // 2][1]
    start = sends[wanted]["ts"]
    trip = callbacks[wanted]["ts"] + callbacks[wanted]["dur"] - start
    mine = [e for e in slices if e["args"].get("id") == wanted]
    # The handler runs that hold one of this round trip's receives.
    for e in slices:
        if e["name"] == "handleEvent" and any(
                r["name"] == "receive" and r["tid"] == e["tid"] and
                e["ts"] <= r["ts"] <= e["ts"] + e["dur"] for r in mine):
            mine.append(e)
    end = max(e["ts"] + e["dur"] for e in mine)
    lanes = []
    for e in sorted(mine, key=lambda e: e["ts"]):
        lane = (e["pid"], e["tid"])
        if lane not in lanes:
            lanes.append(lane)

    fig, ax = plt.subplots(figsize=(10, 1.0 + 0.7 * len(lanes)))
    for e in mine:
        row = lanes.index((e["pid"], e["tid"]))
        nested = any(o is not e and o["tid"] == e["tid"] and o["dur"] > e["dur"] and
                     o["ts"] <= e["ts"] <= o["ts"] + o["dur"] for o in mine)
        height, y = (0.36, row - 0.18) if nested else (0.6, row - 0.3)
        ax.broken_barh([(e["ts"] - start, max(e["dur"], 0.3))], (y, height),
                       facecolors=COLOURS[e["name"]], edgecolor="black", linewidth=0.4,
                       hatch="////" if e["args"].get("reply") else None,
                       zorder=3 if nested else 2)
    # Flows, where the viewer draws them: from the start of a send to the end
    # of its receive, and on to the start of its dispatch or reply callback.
    for reply in (False, True):
        chain = {e["name"]: e for e in mine if e["args"].get("reply") == reply}
        points = [(chain["send"]["ts"], chain["send"]),
                  (chain["receive"]["ts"] + chain["receive"]["dur"], chain["receive"])]
        last = next((chain[n] for n in (ENDS if reply else ("dispatch",)) if n in chain), None)
        if last is not None:
            points.append((last["ts"], last))
        for (x0, a), (x1, b) in zip(points, points[1:]):
            ax.annotate("", xy=(x1 - start, lanes.index((b["pid"], b["tid"]))),
                        xytext=(x0 - start, lanes.index((a["pid"], a["tid"]))),
                        arrowprops=dict(arrowstyle="->", color="#d62728", lw=1.0), zorder=4,
                        annotation_clip=True)
    ax.set_yticks(range(len(lanes)))
    ax.set_yticklabels(["%s %d, thread %d" % (processes.get(p, "?"), p, t) for p, t in lanes],
                       fontsize=8)
    ax.set_xlim(-0.02 * (end - start), 1.02 * (end - start))
    ax.set_ylim(len(lanes) - 0.5, -0.5)
    ax.set_xlabel("microseconds since the request's send began")
    ax.set_title("one round trip of the demo (request %d): %.1f us from send to %s"
                 % (wanted, trip, callbacks[wanted]["name"]), fontsize=10)
    shown = {e["name"] for e in mine}
    handles = [matplotlib.patches.Patch(facecolor=c, edgecolor="black", label=n)
               for n, c in COLOURS.items() if n in shown]
    handles.append(matplotlib.patches.Patch(facecolor="white", edgecolor="black", hatch="////",
                                            label="(hatched: the reply)"))
    handles.append(matplotlib.lines.Line2D([], [], color="#d62728", label="flow"))
    ax.legend(handles=handles, fontsize=7, loc="upper left", bbox_to_anchor=(1.01, 1.0))
    ax.grid(axis="x", linestyle=":", linewidth=0.5)
    fig.tight_layout()
    fig.savefig(out, dpi=110)


if __name__ == "__main__":
    if len(sys.argv) not in (3, 4):
        sys.exit(__doc__)
    main(sys.argv[1], sys.argv[2], int(sys.argv[3]) if len(sys.argv) == 4 else None)
