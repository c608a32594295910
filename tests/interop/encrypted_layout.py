"""How an encrypted disk lies in its files: header, directories, tables, compressed grains and descriptor, read with
plain seeks. What they hold is left as it is."""

import re
import struct

SECTOR = 512
GRAIN = 65536


class Header:
    def __init__(self, file):
        sector = read_at(file, 0, SECTOR)
        magic, _, self.flags, self.capacity, grain, self.descriptor, self.descriptor_size, self.entries = (
            struct.unpack_from("<IIIQQQQI", sector))
        self.redundant, self.directory = struct.unpack_from("<QQ", sector, 48)
        self.compressed, self.algorithm, self.hash_algorithm, length = struct.unpack_from("<HHHH", sector, 77)
        self.key_hash = sector[85 : 85 + length]
        assert magic == 0x05644B45 and sector[:4] == b"\x45\x4b\x64\x05", hex(magic)
        assert sector[73:77] == b"\n \r\n" and grain * SECTOR == GRAIN
        assert (self.algorithm, self.hash_algorithm, length) == (1, 1, 32)
        assert not any(sector[117:])


def read_at(name, position, count):
    with open(name, "rb") as file:
        file.seek(position)
        data = file.read(count)
    assert len(data) == count, f"{name}: {count} bytes at {position}"
    return data


def read_table(name, position_sectors, count):
    return struct.unpack(f"<{count}I", read_at(name, position_sectors * SECTOR, count * 4))


def read_grains(name, header):
    """The sectors of all grains that an extent stores, by their number in it."""
    grains = (header.capacity * SECTOR + GRAIN - 1) // GRAIN
    tables = (grains + header.entries - 1) // header.entries
    found = []
    for start in (header.directory, header.redundant):
        entries = [e for table in read_table(name, start, tables) for e in read_table(name, table, header.entries)]
        found.append({i: e for i, e in enumerate(entries) if e})
    assert found[0] == found[1], f"{name}: the tables differ from the redundant ones"
    return found[0]


def read_descriptor(name):
    with open(name, "rb") as file:
        if file.read(4) != b"# Di":
            header = Header(name)
            text = read_at(name, header.descriptor * SECTOR, header.descriptor_size * SECTOR)
        else:
            text = b"# Di" + file.read()
    text = text.rstrip(b"\0").decode()
    values = {key: value.strip('"') for key, value in re.findall(r'^(\w+) *= *(.*)$', text, re.M)}
    extents = re.findall(r'^RW (\d+) SPARSE "(.*)"', text, re.M)
    return values, [(int(sectors), file) for sectors, file in extents]


def read_stored(file, header, sector, index):
    """The encrypted bytes of a grain, and how many of them count once decrypted."""
    if not header.compressed:
        return read_at(file, sector * SECTOR, GRAIN), GRAIN
    lba, size = struct.unpack("<QI", read_at(file, sector * SECTOR, 12))
    assert lba * SECTOR == index * GRAIN, f"{file}: grain {index} has the sector {lba}"
    stored = (size + 15) // 16 * 16
    return read_at(file, sector * SECTOR + 12, stored), size
