"""Takes encrypted disks apart with nothing but the openssl program, the way a reader would that knows only the
password and how the bytes lie, and finds in them what went in."""

import os
import re
import struct
import subprocess
import tempfile
import zlib

PROGRAM = os.environ["TESSEL_PROGRAM"]
PASSWORD = "Schlüssel & Schloß, 鍵"
SECTOR = 512
GRAIN = 65536
DISK_SIZE = 5 << 30
LAST = DISK_SIZE // GRAIN - 1
# Grains that hold something; byte 1 and byte 2 of their numbers differ too, and two hold the same.
GRAINS = [0, 1, 16, 255, 256, 257, 4095, 32767, 32768, 65535, 65536, 65792, 70001, LAST]
TWINS = (257, 65792)


def openssl(arguments, data=b""):
    return subprocess.run(["openssl", *arguments], input=data, stdout=subprocess.PIPE, check=True).stdout


def derive_key(password, salt, iterations):
    options = ["digest:SHA1", "pass:" + password, "hexsalt:" + salt.hex(), f"iter:{iterations}"]
    text = openssl(["kdf", "-keylen", "32", *[a for o in options for a in ("-kdfopt", o)], "PBKDF2"])
    return bytes.fromhex(text.decode().strip().replace(":", ""))


def decrypt(data, key, iv):
    return openssl(["enc", "-d", "-aes-256-cbc", "-nopad", "-K", key.hex(), "-iv", iv.hex()], data)


def sha256(data):
    return openssl(["dgst", "-sha256", "-binary"], data)


def make_grain_iv(iv, index):
    number = struct.pack("<q", index)
    return bytes(byte ^ number[i % 8] for i, byte in enumerate(iv))


def make_grain(index):
    """Text that shrinks in front, noise behind it; the same for the twins."""
    seed = TWINS[0] if index in TWINS else index
    noise = openssl(["enc", "-aes-128-ctr", "-K", f"{seed:032x}", "-iv", "0" * 32], bytes(30000 + index % 16))
    return (f"This is grain {seed}. ".encode() * 4000)[: GRAIN - len(noise)] + noise


def tessel(*arguments, data=b""):
    return subprocess.run([PROGRAM, *arguments], input=data, stdout=subprocess.PIPE, check=True).stdout


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


def unlock(values):
    """The data key and the base IV."""
    iv, salt, wrapped = (bytes.fromhex(values["lumEnc" + name]) for name in ("IV", "KeyDerivSalt", "EncKey"))
    assert (len(iv), len(salt), len(wrapped)) == (16, 32, 32)
    assert (values["lumEncAlg"], values["lumEncKeyHashAlg"]) == ("aes256cbc", "sha256")
    algorithm, iterations = values["lumEncKeyDerivAlg"].split(":")
    assert (algorithm, iterations) == ("pkcs5-pbkdf2-hmac-sha1", "10000")
    expected = bytes.fromhex(values["lumEncKeyHash"])
    for password in (PASSWORD + " ", PASSWORD):
        key = decrypt(wrapped, derive_key(password, salt, iterations), iv)
        assert (sha256(key) == expected) == (password == PASSWORD), "the hash of the key does not tell"
    return key, iv


def read_stored(file, header, sector, index):
    """The encrypted bytes of a grain, and how many of them count once decrypted."""
    if not header.compressed:
        return read_at(file, sector * SECTOR, GRAIN), GRAIN
    lba, size = struct.unpack("<QI", read_at(file, sector * SECTOR, 12))
    assert lba * SECTOR == index * GRAIN, f"{file}: grain {index} has the sector {lba}"
    stored = (size + 15) // 16 * 16
    return read_at(file, sector * SECTOR + 12, stored), size


def verify(disk, wanted):
    values, extents = read_descriptor(disk)
    key, iv = unlock(values)
    stored = {}
    first = 0
    for sectors, file in extents:
        header = Header(file)
        assert sha256(key) == header.key_hash, f"{file}: the hash of the key is another one"
        for local, sector in read_grains(file, header).items():
            index = first + local
            encrypted, size = read_stored(file, header, sector, index)
            plain = decrypt(encrypted, key, make_grain_iv(iv, index))[:size]
            data = zlib.decompress(plain) if header.compressed else plain
            assert data == wanted[index], f"{disk}: grain {index} has other bytes"
            stored[index] = encrypted
        first += sectors * SECTOR // GRAIN
    assert first == LAST + 1 and sorted(stored) == sorted(wanted), f"{disk}: grains {sorted(stored)}"
    one, other = (stored[index] for index in TWINS)
    assert len(one) == len(other) and one != other and one[:16] != other[:16], "equal grains look equal"
    return key, iv


def main():
    with open("key", "w", encoding="utf-8") as file:
        file.write(PASSWORD + "\n")
    secrets = set()
    for name, options in (("plain", ()), ("packed", ("--compressed",)), ("split", ("--split",))):
        disk = name + ".vmdk"
        tessel("create", disk, str(DISK_SIZE), *options, "--password-file", "key")
        wanted = {index: make_grain(index) for index in GRAINS}
        for index, data in wanted.items():
            tessel("write", disk, str(index * GRAIN), "--password-file", "key", data=data)
        secrets.update(verify(disk, wanted))
        # Noise over the text: a compressed grain moves to another place. Then zeros over a whole grain.
        for index, start, count in ((1, 3, 60001), (70001, 0, 60001), (16, 0, GRAIN)):
            data = bytes(count) if count == GRAIN else make_grain(index)[::-1][:count]
            tessel("write", disk, str(index * GRAIN + start), "--password-file", "key", data=data)
            wanted[index] = wanted[index][:start] + data + wanted[index][start + count :]
        secrets.update(verify(disk, wanted))
    assert len(secrets) == 6, "disks share a key or an IV"


with tempfile.TemporaryDirectory() as folder:
    os.chdir(folder)
    main()
    os.chdir("/")
