"""Takes encrypted disks apart with nothing but the openssl program, the way a reader would that knows only the
password and how the bytes lie, and finds in them what went in."""

import os
import struct
import subprocess
import sys
import tempfile
import zlib

sys.dont_write_bytecode = True
from encrypted_layout import GRAIN, SECTOR, Header, read_descriptor, read_grains, read_stored  # noqa: E402

PROGRAM = os.environ["TESSEL_PROGRAM"]
PASSWORD = "Schlüssel & Schloß, 鍵"
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
            plain = decrypt(encrypted, key, make_grain_iv(iv, index))
            assert not any(plain[size:]), f"{disk}: grain {index} is not filled up with zeros"
            data = zlib.decompress(plain[:size]) if header.compressed else plain
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


if not __debug__:
    sys.exit("the checks of this script are assertions, which are switched off")
with tempfile.TemporaryDirectory() as folder:
    os.chdir(folder)
    main()
    os.chdir("/")
