"""Changes a disk's bytes as if the medium had.

    spoil.py FILE CODE    CODE: Python, for which d are the bytes, u(at) and p(at, n) read and write a number of 4 bytes,
                          and entry(j) is where the first grain table's entry j stands, other(j) that of the redundant one
"""
import struct
import sys

with open(sys.argv[1], "rb") as file:
    d = bytearray(file.read())


def u(at):
    return struct.unpack_from("<I", d, at)[0]


def p(at, n):
    struct.pack_into("<I", d, at, n)


def entry(j):
    return u(u(56) * 512) * 512 + 4 * j


def other(j):
    return u(u(48) * 512) * 512 + 4 * j


exec(sys.argv[2])
with open(sys.argv[1], "wb") as file:
    file.write(d)
