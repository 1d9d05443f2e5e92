#!/usr/bin/env python3
"""morphel-types wsdl and xsd for every API version: the WSDL is well-formed and hangs together, xmllint
accepts the schema and validates an instance with it, the WSDL embeds that same schema, and the output
is the same on every run."""
import json
import os
import shutil
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ET

tool = sys.argv[1]
if shutil.which("xmllint") is None:
    print("xmllint not found")
    sys.exit(77)

WSDL = "{http://schemas.xmlsoap.org/wsdl/}"
SOAP = "{http://schemas.xmlsoap.org/wsdl/soap/}"
XSD = "{http://www.w3.org/2001/XMLSchema}"
INSTANCE = ('<value xmlns="urn:morphel" xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" '
            'xsi:type="ArrayOfInt"><int>{}</int></value>')

failures = []


def check(condition, what):
    if not condition:
        failures.append(what)


def run(args):
    return subprocess.run([tool] + args, capture_output=True)


def xmllint(args):
    return subprocess.run(["xmllint", "--noout"] + args, capture_output=True)


def local(qname):
    return qname.split(":", 1)[1]


# Operations open to callers without a session (privilege "System.Anonymous").
dump = json.loads(run(["dump"]).stdout)
anonymous = {m["wsdlName"] for t in dump["types"] for m in t.get("methods", []) if m.get("privilege") == "System.Anonymous"}
check("MorphelLogin" in anonymous, "login is open to anonymous callers")

with tempfile.TemporaryDirectory() as tmp:
    for n, version in enumerate(["version1", "version2", "morphel.version.version3", "version4"], 1):
        wsdl, xsd = run(["wsdl", "--version", version]), run(["xsd", "--version", version])
        check(wsdl.returncode == 0 and xsd.returncode == 0, version + ": both commands exit 0")
        check(run(["wsdl", "--version", version]).stdout == wsdl.stdout, version + ": the same WSDL every run")
        paths = {}
        for name, text in (("wsdl", wsdl.stdout), ("xsd", xsd.stdout), ("good", INSTANCE.format("-1")),
                           ("bad", INSTANCE.format("one"))):
            paths[name] = os.path.join(tmp, "%s.%s" % (version, name))
            with open(paths[name], "wb") as f:
                f.write(text if isinstance(text, bytes) else text.encode())
        lint = xmllint([paths["wsdl"]])
        check(lint.returncode == 0, version + ": WSDL well-formed: " + lint.stderr.decode()[:500])
        good = xmllint(["--schema", paths["xsd"], paths["good"]])
        check(good.returncode == 0, version + ": schema accepted, instance valid: " + good.stderr.decode()[:500])
        check(xmllint(["--schema", paths["xsd"], paths["bad"]]).returncode != 0, version + ": bad instance refused")

        text = wsdl.stdout.decode()
        schema = xsd.stdout.decode().split("\n", 1)[1]  # after the XML declaration
        embedded = text[text.index("<xsd:schema"):text.index("</xsd:schema>") + len("</xsd:schema>")]
        check([l.strip() for l in embedded.splitlines()] == [l.strip() for l in schema.strip().splitlines()],
              version + ": the WSDL embeds the schema of xsd")

        root = ET.fromstring(wsdl.stdout)
        elements = {e.get("name") for e in root.find(WSDL + "types").find(XSD + "schema").findall(XSD + "element")}
        messages = {m.get("name"): m for m in root.findall(WSDL + "message")}
        check(len(messages) == len(root.findall(WSDL + "message")), version + ": message names unique")
        for m in messages.values():
            part = m.find(WSDL + "part")
            check(local(part.get("element")) in elements, version + ": message part names an element: " + m.get("name"))
        port_ops = root.find(WSDL + "portType").findall(WSDL + "operation")
        names = [op.get("name") for op in port_ops]
        check(len(names) == len(set(names)) and len(names) > 50, version + ": operations unique and many")
        check("FetchProperty" in names, version + ": FetchProperty is an operation")
        for op in port_ops:
            for io in list(op):
                check(local(io.get("message")) in messages, version + ": message of " + op.get("name"))
            faults = [f.get("name") for f in op.findall(WSDL + "fault")]
            check(len(faults) == len(set(faults)), version + ": fault names unique in " + op.get("name"))
            # What any call can raise is listed on every operation; a session and a privilege are needed
            # by all but the few operations open to anonymous callers.
            check({"RuntimeFault", "InvalidRequest"} <= set(faults), version + ": common faults on " + op.get("name"))
            session = {"NotAuthenticated", "NoPermission"} <= set(faults)
            check(session == (op.get("name") not in anonymous),
                  version + ": session faults on " + op.get("name") + " exactly when it needs a session: " + str(faults))
        login = [op for op in port_ops if op.get("name") == "MorphelLogin"]
        check(len(login) == 1 and "NotAuthenticated" not in [f.get("name") for f in login[0].findall(WSDL + "fault")],
              version + ": login needs no session")
        binding = root.find(WSDL + "binding")
        for op, bound in zip(port_ops, binding.findall(WSDL + "operation")):
            check([f.get("name") for f in op.findall(WSDL + "fault")] ==
                  [f.get("name") for f in bound.findall(WSDL + "fault")], version + ": binding faults of " + op.get("name"))
        check([op.get("name") for op in binding.findall(WSDL + "operation")] == names,
              version + ": the binding has the port type's operations")
        actions = {op.find(SOAP + "operation").get("soapAction") for op in binding.findall(WSDL + "operation")}
        check(actions == {"urn:morphel/%d.0" % n}, version + ": soapAction is the version: " + str(actions))
        address = root.find(WSDL + "service").find(WSDL + "port").find(SOAP + "address").get("location")
        check(address == "http://localhost:8085/morphel", version + ": placeholder address")

bad = run(["wsdl", "--version", "version9"])
check(bad.returncode == 2 and bad.stdout == b"" and b"unknown version 'version9'" in bad.stderr,
      "unknown version: exit 2 and a message: " + bad.stderr.decode())

for f in failures:
    print("FAIL:", f)
sys.exit(1 if failures else 0)
