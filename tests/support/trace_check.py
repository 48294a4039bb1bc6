#!/usr/bin/env python3
"""Checks a JSON trace file written by the library's tracing.

  trace_check.py FILE [--requests N]

The file must parse as JSON (a list of trace events). Every message sent
(a "send" slice) must start a flow that a "receive" continues and a
"dispatch", "reply to call" or "reply callback" ends, both in another process
than the send.
With --requests, the number of requests sent (sends that are not replies)
must be N, and as many replies must have been sent. Prints a summary; exits 1
with the reason on the first failure.
"""
import collections
import json
import sys


def fail(reason):
    print("trace_check: " + reason, file=sys.stderr)
    sys.exit(1)


def flow_of(args):
    return "0x%x" % ((((args["type"] << 32) | args["id"]) << 1) | (1 if args["reply"] else 0))


def main():
    if len(sys.argv) not in (2, 4) or (len(sys.argv) == 4 and sys.argv[2] != "--requests"):
        fail("usage: trace_check.py FILE [--requests N]")
    with open(sys.argv[1]) as f:
        try:
            events = json.load(f)
        except ValueError as error:
            fail("not JSON: %s" % error)
    if not isinstance(events, list):
        fail("not a list of events")
    flows = collections.defaultdict(list)
    slices = collections.Counter()
    sends = []
    for event in events:
        phase = event.get("ph")
        if phase in ("s", "t", "f"):
            flows[event["id"]].append((phase, event["pid"]))
        elif phase == "X":
            args = event.get("args", {})
            slices[(event["name"], args.get("reply"))] += 1
            if event["name"] == "send" and args.get("result") == 0:
                sends.append((flow_of(args), event["pid"], args))
    for flow, pid, args in sends:
        phases = flows.get(flow, [])
        if ("s", pid) not in phases:
            fail("send of id %d has no flow start" % args["id"])
        for wanted in ("t", "f"):
            if not any(p == wanted and other != pid for p, other in phases):
                fail("flow of id %d (reply %s) has no '%s' in another process"
                     % (args["id"], args["reply"], wanted))
    requests = sum(1 for _, _, args in sends if not args["reply"])
    replies = len(sends) - requests
    if len(sys.argv) == 4:
        expected = int(sys.argv[3])
        if requests != expected or replies != expected:
            fail("%d requests and %d replies sent, %d expected" % (requests, replies, expected))
    processes = len({event.get("pid") for event in events})
    print("trace_check: %d events from %d processes; %d requests and %d replies, each "
          "linked from its send to its receive and its dispatch in the other process"
          % (len(events), processes, requests, replies))
    print("trace_check: slices %s" % ", ".join(
        "%s%s %d" % (name, "" if reply is None else (" (reply)" if reply else ""), count)
        for (name, reply), count in sorted(slices.items(), key=str)))


if __name__ == "__main__":
    main()
