#!/usr/bin/env python3
"""Writes the part of the catalogue a person checks against the interface tables: every managed type's
method table, and every field of one sample type per module. With --check GOLDEN the listing must equal
the committed file; with --write GOLDEN it is (re)written after a deliberate change to the definitions."""
import json
import subprocess
import sys


def flags(f):
    return ("[]" if f & 1 else "") + ("?" if f & 2 else "")


def listing(dump):
    types = {t["name"]: t for t in dump["types"]}
    out = []
    for t in dump["types"]:
        if t["kind"] != "managed" or not t["name"].startswith("morphel."):
            continue
        out.append(f"managed {t['name']} wsdl={t['wsdlName']} {t['version']} base={t['base']}")
        for i, m in enumerate(t["methods"]):
            params = ", ".join(f"{p['name']}: {p['type']}{flags(p['flags'])}"
                               + ("" if p["version"] == m["version"] else f" ({p['version']})") for p in m["params"])
            result = "void" if m["result"]["type"] is None else m["result"]["type"] + flags(m["result"]["flags"])
            line = f"  [{i}] {m['name']}({params}) -> {result}  wsdl={m['wsdlName']} {m['version']}"
            if m["privilege"]:
                line += f" priv={m['privilege']}"
            if m["flags"]:
                line += f" flags={hex(m['flags'])}"
            if m["faults"]:
                line += " raises " + " ".join(m["faults"])
            out.append(line)
        base = len(t["methods"])
        for i, p in enumerate(t["properties"]):
            out.append(f"  [{base + i}] property {p['name']}: {p['type']} flags={p['flags']}"
                       + (f" priv={p['privilege']}" if p["privilege"] else ""))
    for m in dump["modules"]:
        if not m["source"].startswith("sysimage/kodl/morphel/"):
            continue
        # The module's data type with the most fields stands for the module.
        data = [types[n] for n in m["types"] if types[n]["kind"] in ("data", "fault")]
        if not data:
            continue
        sample = max(data, key=lambda t: len(t["properties"]))
        out.append(f"sample {m['source']}: {sample['name']} wsdl={sample['wsdlName']} {sample['version']} "
                   f"base={sample['base']}")
        for p in sample["properties"]:
            extra = "" if p["extra"] is None else f" extra={json.dumps(p['extra'])}"
            out.append(f"  {p['name']}: {p['type']} flags={p['flags']} {p['version']}{extra}")
    return "\n".join(out) + "\n"


tool, mode, golden = sys.argv[1], sys.argv[2], sys.argv[3]
text = listing(json.loads(subprocess.run([tool, "dump"], capture_output=True, check=True).stdout))
if mode == "--write":
    open(golden, "w").write(text)
    sys.exit(0)
expected = open(golden).read()
if text != expected:
    import difflib
    sys.stdout.writelines(difflib.unified_diff(expected.splitlines(True), text.splitlines(True), golden, "registered"))
    print("0 passed, 1 failed")
    sys.exit(1)
print("1 passed, 0 failed")
