#!/usr/bin/python3
# SPDX-License-Identifier: GPL-2.0
"""The protocol library as an outside binding sees it: loaded from its shared library, called
with its structures by value, its digests compared with those of Python's hashlib.

usage: python_binding.py <shared library>
"""

import ctypes
import hashlib
import random
import sys
import unittest


class auth_key(ctypes.Structure):
    _fields_ = [
        ("key", ctypes.c_uint8 * 20),
        ("key_id", ctypes.c_uint8),
        ("key_valid", ctypes.c_uint8),
        ("padding", ctypes.c_uint16),
    ]


class sha1_ctxt(ctypes.Structure):
    _fields_ = [
        ("h", ctypes.c_uint32 * 5),
        ("c", ctypes.c_uint64),
        ("m", ctypes.c_uint8 * 64),
        ("count", ctypes.c_uint8),
    ]


def load(path):
    library = ctypes.CDLL(path)
    library.kelm_auth_header_len_for_python.argtypes = [ctypes.c_uint8, auth_key]
    library.kelm_auth_header_len_for_python.restype = ctypes.c_uint32
    library.kelm_md5_cksum.argtypes = [ctypes.c_char_p, ctypes.c_size_t, ctypes.c_size_t,
                                       ctypes.c_char_p, ctypes.c_void_p]
    library.kelm_md5_cksum.restype = None
    context = ctypes.POINTER(sha1_ctxt)
    library.kelm_sha1_init.argtypes = [context]
    library.kelm_sha1_loop.argtypes = [context, ctypes.c_char_p, ctypes.c_size_t]
    library.kelm_sha1_result.argtypes = [context, ctypes.c_char_p]
    for operation in ("init", "loop", "result"):
        getattr(library, "kelm_sha1_" + operation).restype = None
    return library


def key_of(password):
    slot = auth_key(key_id=5, key_valid=1)
    slot.key[:len(password)] = password
    return slot


class binding(unittest.TestCase):
    def header_len(self, auth_type, key):
        return library.kelm_auth_header_len_for_python(auth_type, key)

    def md5(self, data):
        digest = ctypes.create_string_buffer(16)
        library.kelm_md5_cksum(data, len(data), len(data), digest, None)
        return digest.raw

    def sha1(self, *pieces):
        context = sha1_ctxt()
        digest = ctypes.create_string_buffer(20)
        library.kelm_sha1_init(context)
        for piece in pieces:
            library.kelm_sha1_loop(context, piece, len(piece))
        library.kelm_sha1_result(context, digest)
        return digest.raw

    def test_section_length_of_every_type(self):
        self.assertEqual(ctypes.sizeof(auth_key), 24)
        fixed = {2: 24, 3: 24, 4: 28, 5: 28, 255: 8}
        key = key_of(b"secret")
        for auth_type in range(256):
            expected = 9 if auth_type == 1 else fixed.get(auth_type, 0)
            self.assertEqual(self.header_len(auth_type, key), expected, auth_type)

    def test_section_length_of_every_password(self):
        for length in range(21):
            self.assertEqual(self.header_len(1, key_of(b"x" * length)), 3 + min(length, 16))

    def test_digests_of_every_length(self):
        source = random.Random(1321)
        for length in range(300):
            data = source.randbytes(length)
            cut = source.randint(0, length)
            self.assertEqual(self.md5(data), hashlib.md5(data).digest(), length)
            self.assertEqual(self.sha1(data), hashlib.sha1(data).digest(), length)
            self.assertEqual(self.sha1(data[:cut], data[cut:]), hashlib.sha1(data).digest(), length)


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit("usage: python_binding.py <shared library>")
    library = load(sys.argv.pop())
    unittest.main()
