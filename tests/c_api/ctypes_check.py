#!/usr/bin/env python3
"""The C interface through Python's ctypes, against the shared library: the structs and the
free functions as another language's foreign-function interface sees them. Needs no network:
a degraded host is refused before anything is sent.

    tests/c_api/ctypes_check.py path/to/libQelHttpDnsSDK.so.1
"""
import ctypes
import os
import sys
import tempfile


class Error(ctypes.Structure):
    _fields_ = [("code", ctypes.c_int64), ("domain", ctypes.c_char_p), ("message", ctypes.c_char_p)]


class Result(ctypes.Structure):
    _fields_ = [("error", ctypes.POINTER(Error)), ("ips", ctypes.POINTER(ctypes.c_char_p)),
                ("ip_count", ctypes.c_size_t)]


def load(path):
    lib = ctypes.CDLL(path)
    lib.qel_httpdns_version.restype = ctypes.c_char_p
    for name in ("qel_httpdns_set_store_path", "qel_httpdns_set_bundle_identifier"):
        getattr(lib, name).argtypes = [ctypes.c_char_p]
        getattr(lib, name).restype = ctypes.POINTER(Error)
    lib.qel_httpdns_set_timeout.argtypes = [ctypes.c_double]
    lib.qel_httpdns_set_timeout.restype = ctypes.POINTER(Error)
    lib.qel_httpdns_set_degrade_hosts.argtypes = [ctypes.POINTER(ctypes.c_char_p), ctypes.c_size_t]
    lib.qel_httpdns_set_degrade_hosts.restype = ctypes.POINTER(Error)
    lib.qel_httpdns_resolve.argtypes = [ctypes.c_char_p, ctypes.c_int, ctypes.c_double]
    lib.qel_httpdns_resolve.restype = ctypes.POINTER(Result)
    lib.qel_httpdns_error_free.argtypes = [ctypes.POINTER(Error)]
    lib.qel_httpdns_result_free.argtypes = [ctypes.POINTER(Result)]
    return lib


def main():
    lib = load(sys.argv[1])
    failures = []

    def check(condition, what):
        if not condition:
            failures.append(what)

    check(lib.qel_httpdns_version() == b"1.0.0", "version")
    with tempfile.TemporaryDirectory() as scratch:
        check(not lib.qel_httpdns_set_bundle_identifier(b"com.example.ctypes"), "bundle identifier")
        check(not lib.qel_httpdns_set_store_path(os.path.join(scratch, "store.sqlite3").encode()),
              "store path")

        bad = lib.qel_httpdns_set_timeout(-1.0)
        check(bool(bad) and bad.contents.code == -50003 and bad.contents.message == b"invalid argument",
              "a negative timeout is an invalid argument")
        lib.qel_httpdns_error_free(bad)

        hosts = (ctypes.c_char_p * 1)(b"legacy.test")
        check(not lib.qel_httpdns_set_degrade_hosts(hosts, 1), "degrade hosts")
        result = lib.qel_httpdns_resolve(b"legacy.test", 1, 0.0)
        error = result.contents.error
        check(bool(error) and error.contents.code == 2 and error.contents.message == b"degrade host",
              "a degraded host is refused with code 2")
        check(result.contents.ip_count == 0, "no addresses with an error")
        lib.qel_httpdns_result_free(result)

    for failure in failures:
        print("ctypes check failed:", failure, file=sys.stderr)
    if not failures:
        print("ctypes check: the C interface works from Python")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
