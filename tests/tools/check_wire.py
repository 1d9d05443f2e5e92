#!/usr/bin/env python3
"""morphel-types encode and decode from the command line: a sample travels through both, and bad input
is reported as the decoder's fault with its path and a non-zero exit."""
import subprocess
import sys

tool = sys.argv[1]


def run(args, stdin=""):
    return subprocess.run([tool] + args, input=stdin.encode(), capture_output=True)


failures = []


def check(condition, what):
    if not condition:
        failures.append(what)


for version in ("version1", "morphel.version.version4"):
    enc = run(["encode", "--version", version, "morphel.DovraConnectionSpec"])
    check(enc.returncode == 0, "encode exits 0")
    dec = run(["decode", "--version", version], enc.stdout.decode())
    out = dec.stdout.decode()
    check(dec.returncode == 0, "decode exits 0: " + dec.stderr.decode())
    check(out.startswith("morphel.DovraConnectionSpec\n  hostname: "), "decode prints the type and fields:\n" + out)
    check(("verifyPeer" in out) == (version != "version1"), "verifyPeer only from version 2: " + out)

bad = run(["decode", "--version", "version2"],
          '<soapenv:Envelope xmlns:soapenv="http://schemas.xmlsoap.org/soap/envelope/" '
          'xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance"><soapenv:Body>'
          '<value xmlns="urn:morphel" xsi:type="MorphelStorageInfoDiskInfo"><biosNumber>12x</biosNumber>'
          '</value></soapenv:Body></soapenv:Envelope>')
check(bad.returncode == 1, "bad input exits 1")
check(bad.stderr.decode() == 'morphel-types: kodl.fault.InvalidRequest: not an int: "12x" (at biosNumber)\n',
      "bad input names reason and path: " + bad.stderr.decode())
check(run(["decode", "--version", "version9"], "").returncode == 2, "unknown version exits 2")
check(run(["encode", "--version", "version1", "morphel.params.ThrottlingParams"]).returncode == 1,
      "a type the version lacks is refused")

for f in failures:
    print("FAIL:", f)
sys.exit(1 if failures else 0)
