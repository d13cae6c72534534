#!/usr/bin/env python3
"""The records that may grow at their end (the ones abi/kvpcie.suppr names) must keep every
member they had: name, offset and type. abidiff's suppression lets such a record's change
through whatever it is, so this check makes "grown at the end" mean exactly that."""
import re
import sys
import xml.etree.ElementTree as ET


def records_named(suppressions):
    with open(suppressions) as source:
        match = re.search(r"^\s*name_regexp\s*=\s*(\S+)", source.read(), re.MULTILINE)
    if not match:
        sys.exit("abi-records: no name_regexp in " + suppressions)
    return re.compile(match.group(1))


class Dump:
    def __init__(self, path):
        self.nodes = {}
        self.records = {}
        for node in ET.parse(path).getroot().iter():
            if "id" in node.attrib:
                # A definition wins over a declaration of the same type.
                if node.get("is-declaration-only") != "yes" or node.get("id") not in self.nodes:
                    self.nodes[node.get("id")] = node
            if node.tag == "class-decl" and node.get("is-declaration-only") != "yes":
                self.records[node.get("name")] = node

    def describe(self, type_id, depth=0):
        node = self.nodes.get(type_id)
        if node is None or depth > 8:
            return "?"
        inner = node.get("type-id")
        text = "%s %s %s" % (node.tag, node.get("name", ""), node.get("size-in-bits", ""))
        if node.tag == "qualified-type-def":
            text += " const" if node.get("const") == "yes" else ""
            text += " volatile" if node.get("volatile") == "yes" else ""
        return text + (" -> " + self.describe(inner, depth + 1) if inner else "")

    def members(self, record):
        result = []
        for member in record.findall("data-member"):
            variable = member.find("var-decl")
            result.append((variable.get("name"), member.get("layout-offset-in-bits"),
                           self.describe(variable.get("type-id"))))
        return result


def main(baseline_path, library_path, suppressions):
    pattern = records_named(suppressions)
    baseline, library = Dump(baseline_path), Dump(library_path)
    problems = []
    for name, record in sorted(baseline.records.items()):
        if not pattern.match(name):
            continue
        if name not in library.records:
            problems.append("%s: no longer defined" % name)
            continue
        before, after = baseline.members(record), library.members(library.records[name])
        if after[:len(before)] != before:
            for old, new in zip(before, after + [None] * len(before)):
                if old != new:
                    problems.append("%s: member %s at bit %s (%s) became %s" %
                                    (name, old[0], old[1], old[2],
                                     "nothing" if new is None else
                                     "%s at bit %s (%s)" % new))
                    break
    for problem in problems:
        print("abi-records: " + problem)
    return 1 if problems else 0


if __name__ == "__main__":
    if len(sys.argv) != 4:
        sys.exit("usage: abi-records.py BASELINE.abi LIBRARY.abi SUPPRESSIONS")
    sys.exit(main(*sys.argv[1:]))
