#!/usr/bin/env python3
"""Cuts an abidw dump down to the C interface: the kvpcie_* functions and variables, their ELF
symbols and the types they reach. The C++ classes of the same library are not part of the
contract that hosts in other languages are built against, and would bury it."""
import os
import sys
import xml.etree.ElementTree as ET

PREFIX = "kvpcie_"
HEADER = "kvpcie.h"


def referenced_ids(element):
    for node in element.iter():
        for key, value in node.attrib.items():
            if key.endswith("type-id"):
                yield value


def main(source, target):
    tree = ET.parse(source)
    corpus = tree.getroot()

    for table in ("elf-function-symbols", "elf-variable-symbols"):
        for symbols in corpus.findall(table):
            for symbol in list(symbols):
                if not symbol.get("name", "").startswith(PREFIX):
                    symbols.remove(symbol)
    for needed in corpus.findall("elf-needed"):
        corpus.remove(needed)

    def is_private_definition(node):
        # A record defined outside the header (an opaque handle's inside) is the library's own:
        # the interface has its declaration only.
        return node.tag in ("class-decl", "union-decl", "enum-decl") and \
            node.get("is-declaration-only") != "yes" and \
            os.path.basename(node.get("filepath", "")) != HEADER

    nodes_by_id = {}
    private_by_id = {}
    for node in corpus.iter():
        if "id" in node.attrib:
            if is_private_definition(node):
                private_by_id.setdefault(node.get("id"), node)
            else:
                nodes_by_id.setdefault(node.get("id"), []).append(node)

    def as_declaration(node):
        for child in list(node):
            node.remove(child)
        node.attrib.pop("size-in-bits", None)
        node.set("is-declaration-only", "yes")
        return [node]

    roots = [node for node in corpus.iter() if node.tag in ("function-decl", "var-decl")
             and node.get("elf-symbol-id", "").startswith(PREFIX)]
    kept = set(map(id, roots))
    seen_ids = set()
    pending = list(roots)
    while pending:
        node = pending.pop()
        for type_id in referenced_ids(node):
            if type_id in seen_ids:
                continue
            seen_ids.add(type_id)
            targets = nodes_by_id.get(type_id)
            if targets is None and type_id in private_by_id:
                targets = as_declaration(private_by_id[type_id])
            for target_node in targets or []:
                kept.add(id(target_node))
                pending.append(target_node)

    def keep(node):
        if id(node) in kept:
            return True
        if node.tag == "namespace-decl":
            for child in list(node):
                if not keep(child):
                    node.remove(child)
            return len(node) > 0
        return False

    for unit in corpus.findall("abi-instr"):
        for child in list(unit):
            if not keep(child):
                unit.remove(child)
        if len(unit) == 0:
            corpus.remove(unit)
    # Line numbers move with every comment; they are not part of the interface.
    for node in corpus.iter():
        for key in ("filepath", "line", "column"):
            node.attrib.pop(key, None)
    ET.indent(tree, space="  ")
    tree.write(target, encoding="unicode")


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit("usage: abi-prune.py DUMP.abi OUT.abi")
    main(sys.argv[1], sys.argv[2])
