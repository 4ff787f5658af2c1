#!/usr/bin/env python3
"""Writes the bytes of a file as a C++ source: ebpf-embed.py OBJECT SOURCE (see host/device/ebpf/ebpf_code.h)."""
import sys

with open(sys.argv[1], "rb") as file:
    data = file.read()
lines = [", ".join(str(byte) for byte in data[at:at + 32]) for at in range(0, len(data), 32)]
with open(sys.argv[2], "w") as file:
    file.write("// Made by the build from ingress.bpf.c.\n#include \"host/device/ebpf/ebpf_code.h\"\n"
               "namespace host {\nalignas(8) const unsigned char ebpfCode[] = {\n" + ",\n".join(lines) +
               "};\nconst size_t ebpfCodeSize = sizeof ebpfCode;\n}\n")
