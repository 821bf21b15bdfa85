"""Holds the words of the sources against those of the documents, both ways."""

import re

from contract import ROOT

# In the core for a maker's programs; the daemon does not call it.
NOT_SENT = {"wifi_send_signal_levels": {"signal", "snr", "noise"}}

IN = ["networkEvents", "debugIn"]
IN_PROCESSES = ["requestIn", "eventIn"]
OUT = ["status", "robotEvents", "robotDebug", "localCommand", "updaterEvents", "responseOut", "requestOut", "eventOut", "discovery"]


def source(path):
    """A source file without its comments."""
    text = (ROOT / path).read_text(encoding="utf-8")
    return re.sub(r"^\s*//.*$|(?<=[;,{}]) +// .*$", "", text, flags=re.M)


def table(path, name):
    """The first text of each row of a table."""
    body = re.search(rf"\b{name}\{{(.*?)\n\}};|\b{name}\{{\{{(.*?)\n\}}\}};", source(path), re.S)
    return set(re.findall(r'(?:\{|Row\{|row<[^>]*>\{|member\{)"(\w+)"', body[0])) if body else set()


def constants(schema):
    return {each for each in schema.get("enum", [schema["const"]] if "const" in schema else []) if each is not None}


def values(contract, channels, key):
    """What a member may be in the messages of these channels."""
    return {value for payload in contract.payloads(channels) for value in constants(payload.get("properties", {}).get(key, {}))}


def keys(contract, channels):
    """The members by which the messages of these channels are told apart."""
    return {key for payload in contract.payloads(channels) for key in payload.get("required", [])}


def members(contract, schema):
    schema = contract.resolve(schema)
    found = set()
    for key, each in schema.get("properties", {}).items():
        found |= {key} | members(contract, each)
    return found | (members(contract, schema["items"]) if "items" in schema else set())


def written(text):
    """The members of what these sources write as JSON: in texts, and through the JSON library."""
    texts = re.findall(r'R"\((.*?)\)"', text, re.S) + re.findall(r'"((?:[^"\\\n]|\\.)*)"', text)
    found = {key for each in texts for key in re.findall(r'"(\w+)":', each.replace('\\"', '"'))}
    for call in re.findall(r'json_pack\("[^"]*"(.*?)\);', text, re.S):
        found |= set(re.findall(r'"(\w+)"', call))
    return found | set(re.findall(r'(?:set_member|json_object_set_new)\([^,]*, "(\w+)"', text))


def sources(pattern):
    return {path: source(path.relative_to(ROOT)) for path in ROOT.glob(pattern)}


def pairs(contract):
    """What has to be the same: name, in the code, in the document."""
    dispatch, everything = "src/mqtt_dispatch.cpp", "\n".join([*sources("src/*.cpp").values(), *sources("lib/*/*.cpp").values()])
    home = contract.messages["settings"]["payload"]["properties"]
    yield "events of apps", table(dispatch, "kEvents"), values(contract, IN, "event")
    yield "commands of apps", table(dispatch, "kCommands"), values(contract, IN, "command")
    yield "keys on any topic", table(dispatch, "kKeys"), keys(contract, IN) - {"event", "command"}
    yield "keys between processes", table(dispatch, "kTransportKeys") | {"wlcfg"}, keys(contract, IN_PROCESSES)
    yield "events between processes", table(dispatch, "kTransportEvents"), values(contract, ["eventIn"], "event")
    yield "questions", table(dispatch, "kGets"), values(contract, ["requestIn"], "get")
    yield "log levels", table("src/log.cpp", "kLevels"), values(contract, ["requestIn"], "set_log_level")
    yield ("members of a home's settings", table(dispatch, "kTextMembers") |
           set(re.findall(r'std::string_view\(key\) == "(\w+)"', source(dispatch))), set(home["wlcfg"]["properties"]))
    yield ("what stands beside them", set(re.findall(r'json_object_get\(message\.root, "(\w+)"', source(dispatch))) - {"event", "command"},
           set(home) - {"wlcfg"})
    yield ("commands to the user interface", set(re.findall(r'send_command_to_robot\("(\w+)"\)', everything)), values(contract, ["robotDebug"], "command"))
    yield ("topics", set(re.findall(r'= "([\w/]+)";', source("include/topics.h"))),
           {each["address"] for each in contract.document["channels"].values()
            if not each["address"].startswith(("tarn/", "udp/"))})
    asking = ["requestOut", "eventOut", "updaterEvents"]
    yield ("what is asked and told elsewhere", set(re.findall(r'R"\(\{"(?:get|event)":"(\w+)"\}\)"', everything)),
           values(contract, asking, "get") | values(contract, asking, "event"))
    states = re.search(r"enum wifi_link_state [^{]*\{(.*?)\}", source("include/wifi_state.h"), re.S)[1]
    told = contract.document["components"]["schemas"]["wifi"]
    yield ("Wi-Fi states", {int(each) for each in re.findall(r"= (-?\d+)", states)}, set(range(told["minimum"], told["maximum"] + 1)))
    yield ("members of what is sent", written(everything) - set().union(*NOT_SENT.values()),
           set().union(*(members(contract, payload) for payload in contract.payloads(OUT))) | {"set_log_level"})


def inbound(contract):
    """The words by which netwarden knows what is meant."""
    every = IN + IN_PROCESSES
    return (keys(contract, every) - {"event", "command", "wifistat"}) | values(contract, every, "event") | \
        values(contract, every, "command") | values(contract, every, "mfg_test")


def check_client(contract):
    """messages.md says of the client's words what its sources say."""
    text = "\n".join(sources("tools/netwardenctl/*.cpp").values())
    sent = re.findall(r'R"\((\{?"?.*?)\)"', text) + re.findall(r'json_pack\("\{s:[^"]*", "(wlcfg)"', text)
    spoken = {word for word in inbound(contract) for each in sent
              for part in re.findall(r"\w+", each) if part == word or part in word and part == "WifiDeviceTracking"}
    document = (ROOT / "docs/messages.md").read_text(encoding="utf-8")
    section = re.search(r"^## What netwardenctl sends\n(.*?)(?=^## )", document, re.M | re.S)
    if section is None:
        return ["messages.md: there is no section \"What netwardenctl sends\""]
    told = set(re.findall(r"`(\w+)`", section[1])) & inbound(contract)
    return [f"messages.md: netwardenctl sends {word!r}, and the document does not say so" for word in sorted(spoken - told)] + \
        [f"messages.md: netwardenctl does not send {word!r}, as the document says" for word in sorted(told - spoken)]


def check_words(contract):
    faults = []
    for name, code, document in pairs(contract):
        if not code or not document:
            faults.append(f"{name}: none were found in the {'document' if code else 'sources'}")
        faults += [f"{name}: {word!r} of the sources is not in asyncapi.yaml" for word in sorted(code - document, key=str)]
        faults += [f"{name}: {word!r} of asyncapi.yaml is not in the sources" for word in sorted(document - code, key=str)]
    for function in NOT_SENT:
        if any(re.search(rf"^[ \t]+.*\b{function}\(", text, re.M) for text in sources("src/*.cpp").values()):
            faults.append(f"{function} is called now: what it sends belongs into the documents")
    return faults + check_client(contract)
