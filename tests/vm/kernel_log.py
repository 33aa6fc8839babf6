#!/usr/bin/python3
# SPDX-License-Identifier: GPL-2.0
"""Searches a kernel log for reports of faults: tests/vm/kernel_log.py <dmesg's output.

Prints what it found and exits with 1 if there is any. The one thing that may be there: a forced
unload of kelm, in rmmod, or a load that fails, in insmod, warns of every vrf that it found alive.
"""

import re
import sys

# What faults look like, in the kernels' own words.
REPORTS = [re.compile(pattern) for pattern in (
    r"\bBUG\b", r"WARNING:", r"\bINFO: (possible|task|rcu)", r"Call Trace", r"\bOops\b",
    r"general protection fault", r"[Uu]nable to handle", r"scheduling while atomic",
    r"possible recursive locking", r"inconsistent lock state", r"circular locking",
    r"suspicious RCU", r"refcount_t", r"ref_tracker", r"leaked",
    r"unregister_netdevice: waiting", r"KASAN:", r"UBSAN:", r"ODEBUG:", r"suspected memory leak",
    r"corruption", r"[Rr]edzone overwritten", r"Poison overwritten", r"Objects remaining",
    r"soft lockup", r"hard LOCKUP", r"rcu.*detected.*stall", r"blocked for more than",
    r"page allocation failure", r"segfault at", r"traps: ",
)]
PREFIX = re.compile(r"^(<\d+>)?\[ *\d+\.\d+\](\[ *[TC]\d+\])? ?")
CONTEXT = 30  # lines shown from a report on


def search(text):
    """The numbers of the lines that report a fault, and how many warnings were exempt."""
    lines = [PREFIX.sub("", line) for line in text.splitlines()]
    reports = {i for i, line in enumerate(lines) if any(r.search(line) for r in REPORTS)}
    exempt = 0
    for block in warnings(lines):
        if is_of_forced_unload(lines[block.start:block.stop]):
            reports -= heads(lines, block)
            exempt += 1
    return sorted(reports), exempt


def warnings(lines):
    """The ranges of the warnings with a backtrace."""
    start = None
    for i, line in enumerate(lines):
        if "[ cut here ]" in line:
            start = i
        elif "---[ end trace" in line and start is not None:
            yield range(start, i + 1)
            start = None


def is_of_forced_unload(block):
    return block[1].startswith("Found Vrf ") and \
        any(f" Comm: {task} " in line for task in ("rmmod", "insmod") for line in block)


def heads(lines, block):
    """What a warning's block says once by itself; another processor's lines may stand between."""
    found = {}
    for i in block:
        for head in ("WARNING: CPU: ", "Call Trace:"):
            if lines[i].startswith(head):
                found.setdefault(head, i)
    return set(found.values())


def main():
    text = sys.stdin.read()
    lines = text.splitlines()
    # A ring buffer that ran over has lost what there was to find.
    if not lines or "Linux version" not in lines[0]:
        print("kernel log: its beginning is missing")
        return 1
    reports, exempt = search(text)
    shown = -1
    for number in reports:
        for i in range(max(number - 1, shown + 1), min(number + CONTEXT, len(lines))):
            print(">" if i in reports else " ", lines[i])
            shown = i
    print(f"kernel log: {len(lines)} lines, {len(reports)} report faults; "
          f"{exempt} warnings of vrfs in a forced unload")
    return 1 if reports else 0


if __name__ == "__main__":
    sys.exit(main())
