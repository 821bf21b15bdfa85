#!/usr/bin/env python3
"""Holds docs/asyncapi.yaml against the rules of AsyncAPI, docs/messages.md and the words of the sources, and recorded
traffic against it.

usage: tests/messages/check.py [RESULTS...]

RESULTS is what the lab keeps of a scenario, build/lab/results/SCENARIO: its file "messages" has lines
"TIME TOPIC PAYLOAD".
Exit code 1 when anything does not fit; each fault is printed. AsyncAPI's own parser: tests/messages/parse.
"""

import json
import pathlib
import re
import sys

sys.dont_write_bytecode = True  # beside these files in the tree
from contract import ROOT, Contract, check_form
from words import check_words

EXAMPLE = re.compile(r"^```json (in|out) (\S+)[^\n]*\n(.*?)\n```$", re.M | re.S)


def check_documents(contract):
    """Each example fits, and stands in both documents."""
    faults = []
    unseen = contract.examples()
    total = 0
    for direction, topic, text in EXAMPLE.findall((ROOT / "docs/messages.md").read_text(encoding="utf-8")):
        total += 1
        payload = json.loads(text)
        kind = contract.kind_of(topic, payload, direction)
        if kind is None:
            faults.append(f"messages.md: no message of asyncapi.yaml on {topic} ({direction}) is like {text}")
        elif payload not in contract.examples()[kind]:
            faults.append(f"messages.md: asyncapi.yaml has no such example of {kind}: {text}")
        for examples in unseen.values():
            if payload in examples:
                examples.remove(payload)
    for kind, payloads in unseen.items():
        faults += [f"asyncapi.yaml: an example of {kind} that is not in messages.md: {json.dumps(each)}" for each in payloads]
    if total < 40:
        faults.append(f"messages.md: only {total} examples were found")
    return faults


def check_traffic(contract, path, seen):
    """What netwarden sent fits; of what others send only its own topics count."""
    faults = []
    for line in open(pathlib.Path(path) / "messages", encoding="utf-8", errors="replace"):
        _, topic, payload = (line.rstrip("\n").split(" ", 2) + ["", ""])[:3]
        if not contract.kinds_at(topic, "out") or topic == "brisk/network/events":
            continue
        try:
            kind = contract.kind_of(topic, json.loads(payload) if payload else None, "out")
        except json.JSONDecodeError:
            kind = None
        if kind is None:
            faults.append(f"{path}: {topic} {payload}")
        seen[kind] = seen.get(kind, 0) + 1
    return faults


def main():
    if any(argument.startswith("-") for argument in sys.argv[1:]):
        print(__doc__)
        return 0 if sys.argv[1] in ("-h", "--help") else 2
    contract = Contract()
    seen = {}
    faults = check_form(contract)
    if not faults:  # else nothing can be held against it
        faults = check_documents(contract) + check_words(contract)
        for path in sys.argv[1:]:
            faults += check_traffic(contract, path, seen)
    if sys.argv[1:] and not seen and not faults:
        faults.append("no message of netwarden in the traffic")
    for fault in faults:
        print(fault)
    counts = ", ".join(f"{kind} {count}" for kind, count in sorted(seen.items(), key=str))
    print(f"messages: {len(faults)} faults" + (f"; seen: {counts}" if counts else ""))
    return 1 if faults else 0


sys.exit(main())
