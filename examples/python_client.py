#!/usr/bin/env python3
"""Asks the diagnosis service for its version and for what it can detect.

    python3 python_client.py [PATH OF libveyrasvc.so OR veyrasvc.dll]

Needs a host (`veyra serve`) and the service (`veyra-diagnosisd`).
"""
import ctypes
import sys
from ctypes import POINTER, byref, c_char, c_char_p, c_int, c_int32, c_void_p

MY_MODULE = 0x60011  # any number that no other module of the machine uses

# The records and sizes of veyrasvc/diagnosis/DFSClientC.h.
TEXT_SIZE = 200
MAX_ITEMS = 50
VERSION_SIZE = 199

Text = c_char * TEXT_SIZE


class DeviceInfo(ctypes.Structure):
    _fields_ = [("device_type", Text), ("operation_type", c_int32), ("device_id", Text), ("package_name", Text),
                ("auth_tag", Text), ("trelix_version", c_int32)]


class StringList(ctypes.Structure):
    _fields_ = [("items", Text * MAX_ITEMS), ("count", c_int32)]


def load(path):
    library = ctypes.CDLL(path)
    library.DFSClientCreate.argtypes = [c_int]
    library.DFSClientCreate.restype = c_void_p
    library.DFSClientDestroy.argtypes = [c_void_p]
    library.DFSClientDestroy.restype = None
    library.CGetSdkVersion.argtypes = [c_void_p, c_char_p]
    library.CGetDetectCapability.argtypes = [c_void_p, POINTER(DeviceInfo), POINTER(StringList)]
    return library


def ask(library, client):
    version = ctypes.create_string_buffer(VERSION_SIZE)
    if library.CGetSdkVersion(client, version) != 0 or not version.value:
        return "no answer; are a host and the diagnosis service running?"
    print("version", version.value.decode())

    detects = StringList()
    if library.CGetDetectCapability(client, byref(DeviceInfo()), byref(detects)) != 0 or detects.count == 0:
        return "the service does not tell what it detects"
    for item in detects.items[:detects.count]:
        print("detects", item.value.decode())
    return None


def main():
    library = load(sys.argv[1] if len(sys.argv) > 1 else "libveyrasvc.so")
    client = library.DFSClientCreate(MY_MODULE)
    if not client:
        return "no memory"
    try:
        return ask(library, client)
    finally:
        library.DFSClientDestroy(client)


if __name__ == "__main__":
    sys.exit(main())
