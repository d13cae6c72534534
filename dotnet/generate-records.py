#!/usr/bin/env python3
"""Writes the .NET statistics records (Statistics.g.cs) from the library's table of statistics
(KvPCIeStatisticsFields.h) and the C records they mirror (kvpcie.h): the C record's fields in
its order, the table's fields public with the table's text, the rest (size, reserved) internal.
A table field that the C record lacks stops the build."""
import re
import sys

C_TO_CSHARP = {"uint64_t": "ulong", "int64_t": "long", "uint32_t": "uint", "int32_t": "int",
               "double": "double"}
RECORDS = [("KVPCIE_CAPTURE_STATISTICS_FIELDS", "kvpcie_capture_statistics", "KvCaptureStatistics",
            "CaptureStatistics", "A capture channel's running counts"),
           ("KVPCIE_INJECT_STATISTICS_FIELDS", "kvpcie_inject_statistics", "KvInjectStatistics",
            "InjectStatistics", "An inject channel's running counts")]


def table(fields_header, macro):
    text = fields_header.replace("\\\n", " ")
    body = re.search(r"#define %s\(X\)(.*)" % macro, text).group(1)
    return [(m.group(1), m.group(2), m.group(4)) for m in
            re.finditer(r'X\((\w+),\s*(\w+),\s*"([^"]*)",\s*"([^"]*)"\)', body)]


def c_fields(c_header, record):
    body = re.search(r"typedef struct %s \{(.*?)\} %s;" % (record, record), c_header,
                     re.DOTALL).group(1)
    return re.findall(r"^\s*(\w+)\s+(\w+);", body, re.MULTILINE)


def cpp_bools(cpp_header, struct):
    body = re.search(r"struct %s \{(.*?)\n\};" % struct, cpp_header, re.DOTALL).group(1)
    return set(re.findall(r"\bbool\s+(\w+)\s*=", body))


def pascal(name):
    return "".join(part.capitalize() for part in name.split("_"))


def main(include_dir, output):
    read = lambda name: open("%s/%s" % (include_dir, name)).read()
    fields_header, c_header = read("KvPCIeStatisticsFields.h"), read("kvpcie.h")
    cpp_header = read("KvPCIeStatistics.h")
    lines = ["// Made by the build from KvPCIeStatisticsFields.h and kvpcie.h: edit those.",
             "using System.Runtime.InteropServices;", "", "namespace KvPCIe", "{"]
    for macro, record, cpp_struct, csharp, summary in RECORDS:
        entries = {name: (member, text) for member, name, text in table(fields_header, macro)}
        fields = c_fields(c_header, record)
        missing = set(entries) - {name for _, name in fields}
        if missing:
            sys.exit("generate-records: %s lacks %s" % (record, ", ".join(sorted(missing))))
        bools = cpp_bools(cpp_header, cpp_struct)
        lines += ["    /// <summary>%s (%s).</summary>" % (summary, record),
                  "    [StructLayout(LayoutKind.Sequential)]",
                  "    public struct %s" % csharp, "    {"]
        for c_type, name in fields:
            if c_type not in C_TO_CSHARP:
                sys.exit("generate-records: %s.%s has a type without a C# twin: %s" %
                         (record, name, c_type))
            if name not in entries:
                lines.append("        internal %s %s;" % (C_TO_CSHARP[c_type], pascal(name)))
                continue
            member, text = entries[name]
            lines.append("        /// <summary>%s.</summary>" % (text[0].upper() + text[1:]))
            if member in bools:
                lines.append("        [MarshalAs(UnmanagedType.Bool)] public bool %s;" %
                             pascal(name))
            else:
                lines.append("        public %s %s;" % (C_TO_CSHARP[c_type], pascal(name)))
        lines += ["    }", ""]
    lines[-1] = "}"
    with open(output, "w") as out:
        out.write("\n".join(lines) + "\n")


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit("usage: generate-records.py INCLUDE_DIR OUTPUT.cs")
    main(*sys.argv[1:])
