#!/usr/bin/env python3
"""Fails when an armhf object file addresses a thread-local variable with an offset folded into
its TLS relocation.

For `sym(tlsldo)+N` (and the local-exec `sym(tpoff)+N`) the cross assembler adds the symbol's
place in the thread-local section to N while keeping the relocation against the symbol, so the
linker counts that place twice: the access lands as far past the variable as the variable lies
inside the section. ARM objects carry REL relocations, whose addend is the word at the place
relocated. A non-zero word is harmless only against a symbol at the start of its section (the
compiler's section anchors, `.LANCHORn(tlsldo)+N`), where the place added is 0.

    python3 scripts/check_tls_offsets.py FILE.o...
"""
import struct
import sys

SHT_SYMTAB, SHT_REL, SHT_RELA = 2, 9, 4
R_ARM_TLS_LDO32, R_ARM_TLS_LE32 = 106, 108
CHECKED = {R_ARM_TLS_LDO32: "tlsldo", R_ARM_TLS_LE32: "tpoff"}


def sections(data):
    shoff, = struct.unpack_from("<I", data, 0x20)
    shentsize, shnum, shstrndx = struct.unpack_from("<HHH", data, 0x2E)
    heads = [struct.unpack_from("<10I", data, shoff + i * shentsize) for i in range(shnum)]
    names = heads[shstrndx][4]
    def name(offset):
        return data[offset:data.index(b"\0", offset)].decode(errors="replace")
    return [dict(name=name(names + h[0]), type=h[1], offset=h[4], size=h[5], link=h[6], info=h[7])
            for h in heads]


def symbol(data, secs, symtab, index):
    """Name and value of a symbol."""
    entry = symtab["offset"] + index * 16
    st_name, st_value, _, _, _, st_shndx = struct.unpack_from("<IIIBBH", data, entry)
    if st_name == 0 and st_shndx < len(secs):
        return secs[st_shndx]["name"], st_value
    strtab = secs[symtab["link"]]["offset"] + st_name
    return data[strtab:data.index(b"\0", strtab)].decode(errors="replace"), st_value


def folded_offsets(path):
    with open(path, "rb") as f:
        data = f.read()
    if data[:4] != b"\x7fELF" or data[4] != 1 or data[5] != 1 or struct.unpack_from("<H", data, 18)[0] != 40:
        return []  # not a 32-bit little-endian ARM object
    secs = sections(data)
    found = []
    for rel in secs:
        if rel["type"] not in (SHT_REL, SHT_RELA):
            continue
        entry_size = 8 if rel["type"] == SHT_REL else 12
        target, symtab = secs[rel["info"]], secs[rel["link"]]
        for at in range(rel["offset"], rel["offset"] + rel["size"], entry_size):
            r_offset, r_info = struct.unpack_from("<II", data, at)
            kind = CHECKED.get(r_info & 0xFF)
            if kind is None:
                continue
            if rel["type"] == SHT_REL:
                addend, = struct.unpack_from("<i", data, target["offset"] + r_offset)
            else:
                addend, = struct.unpack_from("<i", data, at + 8)
            name, value = symbol(data, secs, symtab, r_info >> 8)
            if addend != 0 and value != 0:
                found.append(f"{path}: {target['name']}+{r_offset:#x}: {name}({kind}){addend:+d}, "
                             f"{name} at {value:#x}")
    return found


def main(paths):
    found = [line for path in paths for line in folded_offsets(path)]
    for line in found:
        print(line)
    if found:
        print(f"{len(found)} thread-local access(es) with an offset folded into the relocation; "
              "take the buffer's address through support/thread_buffer.h")
        return 1
    print(f"check_tls_offsets: {len(paths)} object files, no folded thread-local offsets")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
