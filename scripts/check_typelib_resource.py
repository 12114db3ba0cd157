#!/usr/bin/env python3
"""Checks that a built DLL carries the type library it was built with.

Reads the DLL's resource TYPELIB 1 straight from the PE file (no loader, so it
works for the i686 DLL that cannot run here) and requires it to be, byte for
byte, the type library file written at build time, and that file to be a
binary type library of the expected system kind. Exits 1 with a reason.
"""
import argparse
import struct
import sys

MSFT_MAGIC = b"MSFT"
RESOURCE_DIRECTORY = 2


def fail(message):
    sys.exit(f"check_typelib_resource: {message}")


class Image:
    def __init__(self, data):
        self.data = data
        pe = struct.unpack_from("<I", data, 0x3C)[0]
        if data[pe:pe + 4] != b"PE\0\0":
            fail("not a PE file")
        sections, optional_size = struct.unpack_from("<H12xH", data, pe + 6)
        optional = pe + 24
        magic = struct.unpack_from("<H", data, optional)[0]
        directories = optional + (96 if magic == 0x10B else 112)
        self.rsrc = struct.unpack_from("<I", data, directories + 8 * RESOURCE_DIRECTORY)[0]
        table = optional + optional_size
        # (virtual size, virtual address, raw size, raw offset) per section
        self.sections = [struct.unpack_from("<8xIIII", data, table + 40 * i) for i in range(sections)]

    def offset(self, rva):
        if not rva:
            fail("the DLL has no resources")
        for size, address, _, raw in self.sections:
            if address <= rva < address + size:
                return rva - address + raw
        fail(f"address {rva:#x} is in no section")

    def entries(self, directory):
        """(name or id, is_directory, offset within the resource section) per entry."""
        base = self.offset(self.rsrc)
        named, numbered = struct.unpack_from("<12xHH", self.data, base + directory)
        for i in range(named + numbered):
            key, target = struct.unpack_from("<II", self.data, base + directory + 16 + 8 * i)
            if key & 0x80000000:
                at = base + (key & 0x7FFFFFFF)
                length = struct.unpack_from("<H", self.data, at)[0]
                key = self.data[at + 2:at + 2 + 2 * length].decode("utf-16-le")
            yield key, bool(target & 0x80000000), target & 0x7FFFFFFF

    def resource(self, kind, ident):
        for key, is_dir, at in self.entries(0):
            if key == kind and is_dir:
                for name, is_dir2, at2 in self.entries(at):
                    if name == ident and is_dir2:
                        for _, _, leaf in self.entries(at2):
                            rva, size = struct.unpack_from("<II", self.data, self.offset(self.rsrc) + leaf)
                            start = self.offset(rva)
                            return self.data[start:start + size]
        fail(f"no resource {kind} {ident}")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--dll", required=True)
    parser.add_argument("--tlb", required=True)
    parser.add_argument("--system-kind", type=int, required=True)
    parser.add_argument("--types", type=int, required=True)
    args = parser.parse_args()

    with open(args.dll, "rb") as f:
        carried = Image(f.read()).resource("TYPELIB", 1)
    with open(args.tlb, "rb") as f:
        written = f.read()
    if carried != written:
        fail(f"{args.dll}: resource TYPELIB 1 differs from {args.tlb}")
    if written[:4] != MSFT_MAGIC:
        fail(f"{args.tlb}: not a binary type library")
    # The header's word at 20 carries the system kind in its low four bits.
    kind, _, library_flags, types = struct.unpack_from("<IIII", written, 20)
    if kind & 0xF != args.system_kind:
        fail(f"{args.tlb}: system kind {kind & 0xF}, expected {args.system_kind}")
    if library_flags != 0:
        fail(f"{args.tlb}: library flags {library_flags:#x}, expected none")
    if types != args.types:
        fail(f"{args.tlb}: {types} type descriptions, expected {args.types}")


if __name__ == "__main__":
    main()
