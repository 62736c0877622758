#!/usr/bin/env python3
"""Compares the manual with the programs: keys and defaults, options, verbs, exit codes.

usage: manual_test.py dsd dsctl folder_of_the_pages
"""
import pathlib
import re
import shutil
import subprocess
import sys
import tomllib

dsd, dsctl, folder = sys.argv[1:4]
pages = {page.name: page.read_text() for page in pathlib.Path(folder).iterdir()}
faults = []


def output_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def plain(text):
    """The text of a page without its escapes."""
    text = text.replace(r"\(dq", '"').replace(r"\-", "-")
    return re.sub(r"\\f[A-Z]", "", text)


def compare(what, documented, real):
    for entry in sorted(real - documented):
        faults.append(f"{what} {entry} is missing")
    for entry in sorted(documented - real):
        faults.append(f"{what} {entry} does not exist")


def documented_keys():
    """section.key = default, as the headings of the page have them."""
    keys, section = set(), ""
    for line in plain(pages["ds.toml.5"]).splitlines():
        if heading := re.fullmatch(r"\.SS \[(\w+)\]", line):
            section = heading[1]
        elif key := re.fullmatch(r"\.B (\w+) = (.+)", line):
            keys.add(f"{section}.{key[1]} = {tomllib.loads('v = ' + key[2])['v']!r}")
    return keys


def real_keys():
    left_to_the_daemon = {"runtime_dir", "socket", "trace_dir"}  # printed as they are in effect
    config = tomllib.loads(output_of(dsd, "--config", "/dev/null", "--print-config"))
    return {
        f"{section}.{key} = {('' if key in left_to_the_daemon else value)!r}"
        for section, keys in config.items()
        for key, value in keys.items()
    }


def options_of(text):
    return set(re.findall(r"(?<![\w-])--[a-z][a-z-]+", text))


def verbs_of_help():
    listed = output_of(dsctl, "--help").split("\nVerbs:\n")[1].split("\n\n")[0]
    return {line.split()[0] for line in listed.splitlines()}


def documented_verbs():
    return set(re.findall(r"^\.B[IR]? \"?([a-z]+)", section_of("dsctl.1", "VERBS"), re.M))


def section_of(page, title):
    return plain(pages[page]).split(f"\n.SH {title}\n")[1].split("\n.SH ")[0]


compare("ds.toml.5: key", documented_keys(), real_keys())
compare("dsd.8: option", options_of(section_of("dsd.8", "OPTIONS")), options_of(output_of(dsd, "--help")))
for verb in sorted(verbs_of_help()):
    if verb not in documented_verbs():
        faults.append(f"dsctl.1: verb {verb} is missing")
    options = options_of(output_of(dsctl, verb, "--help"))
    for option in sorted(options - options_of(plain(pages["dsctl.1"]))):
        faults.append(f"dsctl.1: option {option} of {verb} is missing")

if groff := shutil.which("groff"):
    for name in sorted(pages):
        complaint = subprocess.run([groff, "-man", "-ww", "-z", f"{folder}/{name}"],
                                   capture_output=True, text=True, check=False).stderr
        if complaint:
            faults.append(f"{name}: {complaint}")

print("\n".join(faults) or f"{len(pages)} pages, {len(real_keys())} keys, {len(verbs_of_help())} verbs: ok")
sys.exit(bool(faults))
