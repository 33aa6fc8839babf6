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
    data, size, context = ctypes.c_char_p, ctypes.c_size_t, ctypes.POINTER(sha1_ctxt)
    for name, *argtypes in (
            ("kelm_auth_header_len_for_python", ctypes.c_uint8, auth_key),
            ("kelm_md5_cksum", data, size, size, data, ctypes.c_void_p),
            ("kelm_sha1_init", context),
            ("kelm_sha1_loop", context, data, size),
            ("kelm_sha1_result", context, data)):
        function = getattr(library, name)
        function.argtypes = argtypes
        function.restype = ctypes.c_uint32 if name.startswith("kelm_auth") else None
    return library


class binding(unittest.TestCase):
    def header_len(self, auth_type, password):
        slot = auth_key(key_id=5, key_valid=1)
        slot.key[:len(password)] = password
        return library.kelm_auth_header_len_for_python(auth_type, slot)

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

    def test_section_lengths(self):
        fixed = {2: 24, 3: 24, 4: 28, 5: 28, 255: 8}
        for auth_type in range(256):
            expected = 9 if auth_type == 1 else fixed.get(auth_type, 0)
            self.assertEqual(self.header_len(auth_type, b"secret"), expected, auth_type)
        for length in range(21):
            self.assertEqual(self.header_len(1, b"x" * length), 3 + min(length, 16))
        self.assertEqual(self.header_len(1, b"ab\0cd"), 5)

    def test_digests_of_every_length(self):
        source = random.Random(1321)
        for length in range(300):
            data = source.randbytes(length)
            cut = source.randint(0, length)
            self.assertEqual(self.md5(data), hashlib.md5(data).digest(), length)
            self.assertEqual(self.sha1(data), hashlib.sha1(data).digest(), length)
            self.assertEqual(self.sha1(data[:cut], data[cut:]), hashlib.sha1(data).digest(), length)

    def test_md5_goes_on_from_given_chaining_values(self):
        after_64_times_a = (ctypes.c_uint32 * 4)(0x89d4ff56, 0x125cd962, 0x69cade33, 0x0033e325)
        digest = ctypes.create_string_buffer(16)
        library.kelm_md5_cksum(b"b" * 36, 36, 100, digest, after_64_times_a)
        self.assertEqual(digest.raw, self.md5(b"a" * 64 + b"b" * 36))


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit("usage: python_binding.py <shared library>")
    library = load(sys.argv.pop())
    unittest.main()
