#!/usr/bin/env python3
"""Holds `morphel-types` to its published output: the JSON layout of `dump`, byte-identical output on a
second run, and `describe` failing clearly on an unknown name."""
import json
import subprocess
import sys

tool = sys.argv[1]
failures = []


def check(condition, message):
    if not condition:
        failures.append(message)


first = subprocess.run([tool, "dump"], capture_output=True, check=True).stdout
second = subprocess.run([tool, "dump"], capture_output=True, check=True).stdout
check(first == second, "dump is not deterministic")
data = json.loads(first)

check(list(data) == ["versions", "modules", "types"], "top-level keys")
versions = {v["name"]: v for v in data["versions"]}
check(len(data["versions"]) == 28, "28 versions")
for v in data["versions"]:
    check(set(v) == {"name", "wireNamespace", "versionString", "serviceNamespace", "includes"}, "version keys")
    check(v["name"] in v["includes"], v["name"] + " includes itself")
m1 = versions["morphel.version.version1"]
check(m1["versionString"] == "1.0" and m1["wireNamespace"] == "morphel", "morphel version1")
check("dovra.version.version3" in m1["includes"] and "dovra.version.version4" not in m1["includes"],
      "version1 is served on dovra version3")

types = {t["name"]: t for t in data["types"]}
check(len(types) == len(data["types"]), "type names unique")
listed = [n for m in data["modules"] for n in m["types"]]
check(sorted(listed) == sorted(types), "every type belongs to exactly one module")
morphel_modules = [m for m in data["modules"] if m["source"].startswith("sysimage/kodl/morphel/")]
check(len(morphel_modules) == 21, "21 interface modules")

for t in data["types"]:
    check(set(t) == {"kind", "name", "wsdlName", "version", "cppName", "base", "properties", "methods", "values"},
          t["name"] + " keys")
    check(t["kind"] in ("data", "fault", "enum", "managed"), t["name"] + " kind")
    check((t["base"] is None) == (t["kind"] == "enum" or t["name"] in ("kodl.DynamicData", "kodl.ManagedObject")),
          t["name"] + " base")
    if t["base"] is not None:
        check(t["base"] in types, t["name"] + " base is a type of the map")
    for p in t["properties"]:
        check(set(p) == {"name", "type", "flags", "version", "privilege", "extra"}, t["name"] + " property keys")
        check(p["type"] in types or p["type"] in ("string", "int", "long", "short", "boolean", "byte", "float",
                                                  "double", "dateTime", "anyType", "typeName", "propertyPath"),
              t["name"] + "." + p["name"] + " type " + str(p["type"]))
        check(p["version"] in versions, t["name"] + "." + p["name"] + " version")
    check(bool(t["methods"]) <= (t["kind"] == "managed"), t["name"] + " methods only on managed types")
    check(bool(t["values"]) == (t["kind"] == "enum"), t["name"] + " values only on enumerations")

task_info = types["morphel.task.TaskInfo"]
check(task_info["wsdlName"] == "MorphelTaskInfo" and task_info["cppName"] == "Morphel::Task::TaskInfo", "TaskInfo names")
check(task_info["properties"][0] == {"name": "key", "type": "string", "flags": 4,
                                     "version": "morphel.version.version1", "privilege": None, "extra": None},
      "TaskInfo.key as documented")
check(types["morphel.fault.FileNotFound"]["kind"] == "fault", "faults are reported as such")
logout = [m for m in types["morphel.SessionManager"]["methods"] if m["name"] == "logout"][0]
check(logout["result"] == {"type": None, "flags": 0, "version": "kodl.version.version0"}, "void result")
login = types["morphel.SessionManager"]["methods"][0]
check(login["faults"] == ["dovra.fault.InvalidLogin", "dovra.fault.InvalidLocale"], "login faults")
check(login["params"][2] == {"name": "locale", "type": "string", "flags": 2, "version": "morphel.version.version1"},
      "login locale parameter")
check(types["morphel.task.TaskInfo.State"]["values"] == ["queued", "running", "success", "error"], "TaskInfo.State")

bad = subprocess.run([tool, "describe", "morphel.NoSuchType"], capture_output=True, text=True)
check(bad.returncode == 1 and "no type named 'morphel.NoSuchType'" in bad.stderr and bad.stdout == "",
      "describe of an unknown name")
good = subprocess.run([tool, "describe", "morphel.fault.FileNotFound"], capture_output=True, text=True, check=True)
check("bases      morphel.fault.MorphelFileFault morphel.fault.MorphelFault kodl.RuntimeFault" in good.stdout,
      "describe shows the base chain")

for f in failures:
    print("FAILED:", f)
print(f"{0 if failures else 1} passed, {len(failures)} failed")
sys.exit(1 if failures else 0)
