#!/usr/bin/env python3
"""Holds docs/messages.md and docs/asyncapi.yaml against each other, and recorded traffic against both.

usage: tests/messages/check.py [RESULTS...]

RESULTS is what the lab keeps of a scenario, build/lab/results/SCENARIO: its file "messages" has lines
"TIME TOPIC PAYLOAD".
Exit code 1 when an example or a message does not fit; each is printed.
"""

import json
import pathlib
import re
import sys

import jsonschema
import yaml

DOCS = pathlib.Path(__file__).resolve().parents[2] / "docs"
EXAMPLE = re.compile(r"^```json (in|out) (\S+)[^\n]*\n(.*?)\n```$", re.M | re.S)


class Contract:
    def __init__(self):
        with open(DOCS / "asyncapi.yaml", encoding="utf-8") as file:
            self.document = yaml.safe_load(file)
        self.channels = []
        sent = {each["channel"]["$ref"] for each in self.document["operations"].values() if each["action"] == "send"}
        sent |= {each["reply"]["channel"]["$ref"] for each in self.document["operations"].values() if "reply" in each}
        taken = {each["channel"]["$ref"] for each in self.document["operations"].values() if each["action"] == "receive"}
        for name, channel in self.document["channels"].items():
            pattern = re.sub(r"\\\{\w+\\\}", "[^/]+", re.escape(channel["address"]))
            here = f"#/channels/{name}"
            self.channels.append((re.compile(pattern + "$"), list(channel["messages"]), here in sent, here in taken))

    def kinds_at(self, topic, direction=None):
        """The names of the messages that a topic may carry in this direction."""
        kinds = []
        for pattern, messages, sent, taken in self.channels:
            if pattern.match(topic) and direction in (None, sent and "out", taken and "in"):
                kinds += messages
        return kinds

    def fits(self, kind, payload):
        schema = {"$ref": f"#/components/messages/{kind}/payload", "components": self.document["components"]}
        return jsonschema.Draft7Validator(schema).is_valid(payload)

    def kind_of(self, topic, payload, direction=None):
        return next((kind for kind in self.kinds_at(topic, direction) if self.fits(kind, payload)), None)

    def examples(self):
        return {name: [each["payload"] for each in message.get("examples", [])]
                for name, message in self.document["components"]["messages"].items()}


def check_documents(contract):
    """Each example fits, and stands in both documents."""
    faults = []
    unseen = contract.examples()
    total = 0
    for direction, topic, text in EXAMPLE.findall((DOCS / "messages.md").read_text(encoding="utf-8")):
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
    faults = check_documents(contract)
    for path in sys.argv[1:]:
        faults += check_traffic(contract, path, seen)
    if sys.argv[1:] and not seen:
        faults.append("no message of netwarden in the traffic")
    for fault in faults:
        print(fault)
    counts = ", ".join(f"{kind} {count}" for kind, count in sorted(seen.items(), key=str))
    print(f"messages: {len(faults)} faults" + (f"; seen: {counts}" if counts else ""))
    return 1 if faults else 0


sys.exit(main())
