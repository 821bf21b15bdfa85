"""docs/asyncapi.yaml as the checks of this folder see it."""

import pathlib
import re

import jsonschema
import yaml

ROOT = pathlib.Path(__file__).resolve().parents[2]

# What AsyncAPI 3.0 lets an object of the document have, as far as the document uses it: the required ones first.
KEYS = {
    "document": (["asyncapi", "info"], ["servers", "defaultContentType", "channels", "operations", "components"]),
    "info": (["title", "version"], ["description", "license", "contact"]),
    "server": (["host", "protocol"], ["description", "title", "summary"]),
    "channel": (["address", "messages"], ["description", "title", "summary", "servers", "parameters"]),
    "parameter": ([], ["description", "enum", "default", "examples", "location"]),
    "operation": (["action", "channel"], ["description", "title", "summary", "messages", "reply"]),
    "message": (["payload"], ["description", "name", "title", "summary", "contentType", "examples"]),
    "example": (["payload"], ["name", "summary"]),
}


class Contract:
    def __init__(self, path=ROOT / "docs/asyncapi.yaml"):
        with open(path, encoding="utf-8") as file:
            self.document = yaml.safe_load(file)
        self.messages = self.document["components"]["messages"]
        operations = self.document["operations"].values()
        sent = {each["channel"]["$ref"] for each in operations if each["action"] == "send"}
        sent |= {each["reply"]["channel"]["$ref"] for each in operations if "reply" in each}
        taken = {each["channel"]["$ref"] for each in operations if each["action"] == "receive"}
        self.channels = []
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
        return {name: [each["payload"] for each in message.get("examples", [])] for name, message in self.messages.items()}

    def resolve(self, schema):
        while "$ref" in schema:
            schema = self.at(schema["$ref"])
        return schema

    def at(self, reference):
        """What a reference within the document points at; KeyError when there is nothing."""
        found = self.document
        for step in reference.removeprefix("#/").split("/"):
            found = found[step]
        return found

    def payloads(self, channels):
        """The payload schemas of some channels' messages."""
        kinds = {kind for name in channels for kind in self.document["channels"][name]["messages"]}
        return [self.messages[kind]["payload"] for kind in sorted(kinds)]


def references(node):
    if isinstance(node, dict):
        if "$ref" in node:
            yield node["$ref"]
        node = list(node.values())
    if isinstance(node, list):
        for each in node:
            yield from references(each)


def schemas(schema, where):
    """The schema and all within it that describe an object, with the place of each."""
    yield schema, where
    for name, each in schema.get("properties", {}).items():
        yield from schemas(each, f"{where}.{name}")
    if "items" in schema:
        yield from schemas(schema["items"], f"{where}[]")


def objects(document):
    """Every object of the document that has rules in KEYS: kind, place, object."""
    yield "document", "document", document
    yield "info", "info", document.get("info", {})
    for part, kind in (("servers", "server"), ("channels", "channel"), ("operations", "operation")):
        for name, each in document.get(part, {}).items():
            yield kind, f"{part}.{name}", each
    for name, channel in document["channels"].items():
        for parameter, each in channel.get("parameters", {}).items():
            yield "parameter", f"channels.{name}.parameters.{parameter}", each
    for name, message in document["components"]["messages"].items():
        yield "message", f"messages.{name}", message
        for each in message.get("examples", []):
            yield "example", f"an example of messages.{name}", each


def check_form(contract):
    """The document by itself: what AsyncAPI and JSON schema ask of it, and names for whoever generates code from it."""
    document, faults, titles = contract.document, [], {}
    if document.get("asyncapi") != "3.0.0":
        faults.append(f"asyncapi is {document.get('asyncapi')}: what follows knows the keys of 3.0.0")
    for kind, place, each in objects(document):
        required, allowed = KEYS[kind]
        faults += [f"{place} lacks {key!r}" for key in required if key not in each]
        faults += [f"{place} has {key!r}, which is none of a {kind}'s" for key in each if key not in required + allowed]
    for reference in references(document):
        try:
            contract.at(reference)
        except KeyError:
            faults.append(f"{reference} points at nothing")
    for name, channel in document["channels"].items():
        named = set(re.findall(r"\{(\w+)\}", channel["address"]))
        if named != set(channel.get("parameters", {})):
            faults.append(f"channels.{name}: its parameters are not those of its address")
    named = [(message["payload"], f"messages.{name}") for name, message in contract.messages.items()]
    named += [(each, f"schemas.{name}") for name, each in document["components"]["schemas"].items()]
    for schema, place in named:
        try:
            jsonschema.Draft7Validator.check_schema(schema)
        except jsonschema.SchemaError as error:
            faults.append(f"{place}: {error.message}")
        for each, where in schemas(schema, place):
            title = each.get("title")
            if title is None and (where == place or "properties" in each):
                faults.append(f"{where} has no title, so a generator would have to make up a name")
            elif title in titles and title is not None:
                faults.append(f"{where} and {titles[title]} have the same title")
            titles[title] = where
    return [f"asyncapi.yaml: {fault}" for fault in faults]
