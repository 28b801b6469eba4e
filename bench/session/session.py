#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The session of session.cpp without libjovu, with PyUSB and the standard library.

  session.py FILE

Needs the Debian package python3-usb.
"""

import itertools
import json
import sys
import time
import zlib

try:
    import usb.core
    import usb.util
except ImportError:
    sys.exit("session.py needs PyUSB: apt-get install python3-usb")

ROUND_TRIPS = 1000


class Controller:
    def __init__(self):
        self.device = usb.core.find(idVendor=0x7A1C, idProduct=0x0002)
        if self.device is None:
            sys.exit("session.py: no controller is attached")
        usb.util.claim_interface(self.device, 0)
        self.ids = itertools.count(1)
        self.received = bytearray()

    def read_frame(self):
        while True:
            start = self.received.find(b"$")
            if start >= 0 and len(self.received) >= start + 5:
                length = int.from_bytes(self.received[start + 1:start + 3], "little")
                check = int.from_bytes(self.received[start + 3:start + 5], "little")
                end = start + 5 + length
                if length ^ check != 0xFFFF:
                    del self.received[:start + 5]
                    continue
                if len(self.received) >= end:
                    payload = self.received[start + 5:end - 1]
                    intact = self.received[end - 1] == ord(";")
                    del self.received[:end if intact else end - 1]
                    if intact:
                        return json.loads(payload)
                    continue
            self.received += self.device.read(0x81, 64, 15000)

    def call(self, index, name):
        request = {"transport": {"attrs": ["request", "twoway"], "id": next(self.ids)},
                   "data": {"command": {"idx": index, "name": name}}}
        payload = json.dumps(request, separators=(",", ":")).encode()
        length = len(payload) + 1
        self.device.write(0x02, b"$" + length.to_bytes(2, "little") +
                          (length ^ 0xFFFF).to_bytes(2, "little"), 1500)
        self.device.write(0x02, payload + b";", 1500)
        while True:
            response = self.read_frame()
            if response["transport"]["id"] == request["transport"]["id"]:
                return response["data"]["command"]["__return__"]

    def get_version(self):
        return bytes(self.call(0, "bio_get_version")[:-1]).decode()

    def push(self, path):
        size, checksum = 0, 0
        with open(path, "rb") as file:
            while piece := file.read(5120):
                size += len(piece)
                checksum = zlib.adler32(piece, checksum)
            announcement = {"metadata": {"version": 1, "type": "file_push"},
                            "file_push": {"size": size, "adler32": checksum, "job_id": ""}}
            self.device.write(0x04, json.dumps(announcement, separators=(",", ":")), 1500)
            file.seek(0)
            while piece := file.read(5120):
                self.device.write(0x04, piece, 1500)


def main():
    path = sys.argv[1]
    controller = Controller()
    begin, begin_cpu = time.monotonic(), time.process_time()
    for _ in range(ROUND_TRIPS):
        controller.get_version()
    result = {"round_trips_per_s": round(ROUND_TRIPS / (time.monotonic() - begin)),
              "round_trip_cpu_us": round((time.process_time() - begin_cpu) * 1e6 / ROUND_TRIPS)}
    begin, begin_cpu = time.monotonic(), time.process_time()
    controller.push(path)
    result["push_s"] = time.monotonic() - begin
    result["push_cpu_s"] = time.process_time() - begin_cpu
    begin = time.monotonic()
    try:
        controller.push(path)
        result["at_unplug"] = "none"
    except usb.core.USBError as error:
        result["at_unplug"] = str(error)
        result["unplug_s"] = time.monotonic() - begin
    print(json.dumps(result))


main()
